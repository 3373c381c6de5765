-- Choice of a local URL for a segment by metric and criteria.
-- KEYS[1]: segment id. ARGV[1]: metric, the minimum remaining lifetime in whole seconds ("-":
-- any live URL). ARGV[2]: criteria, a plain substring the URL must contain ("-": any).
-- ARGV[3]: option word, "-" for none or flags such as "-S" (strict: fail instead of falling
-- back to a URL that does not meet the criteria).
-- Among the URLs that meet the metric and the criteria, the latest-expiring one is chosen (equal
-- expiries: the greatest in byte order). Reply: the URL, or a string beginning with "#err: ".

if #KEYS ~= 1 then
  return '#err: expected 1 key, got ' .. #KEYS
end
local seg = KEYS[1]
local min_left = 0
local metric = ARGV[1]
if metric ~= nil and metric ~= '' and metric ~= '-' then
  min_left = tonumber(metric)
  if min_left == nil or min_left < 0 or min_left ~= math.floor(min_left) then
    return '#err: invalid metric [' .. metric .. ']'
  end
end
local criteria = ARGV[2]
if criteria == '-' or criteria == '' then
  criteria = nil
end
local strict = false
local opt = ARGV[3]
if opt ~= nil and opt ~= '' and opt ~= '-' then
  if string.gsub(opt, '%-%a', '') ~= '' then
    return '#err: invalid option [' .. opt .. ']'
  end
  for flag in string.gmatch(opt, '%-(%a)') do
    if flag == 'S' then
      strict = true
    else
      return '#err: unknown option [-' .. flag .. ']'
    end
  end
end
local ktype = redis.call('TYPE', seg).ok
if ktype ~= 'none' and ktype ~= 'zset' then
  return '#err: key [' .. seg .. '] holds a ' .. ktype
end

local now = tonumber(redis.call('TIME')[1])
redis.call('ZREMRANGEBYSCORE', seg, '-inf', now)
-- Latest-expiring first. "%.17g": an integer bound prints exactly, and a huge metric stays a huge
-- bound (with "%d" it would wrap to a negative one and let every URL through).
local urls = redis.call('ZREVRANGEBYSCORE', seg, '+inf', string.format('%.17g', now + min_left))
if #urls == 0 then
  return '#err: no URL for [' .. seg .. '] living ' .. min_left .. 's more'
end
if criteria == nil then
  return urls[1]
end
for _, url in ipairs(urls) do
  if string.find(url, criteria, 1, true) then
    return url
  end
end
if strict then
  return '#err: no URL for [' .. seg .. '] matches [' .. criteria .. ']'
end
return urls[1]
