-- Round-robin choice of a local URL for a segment.
-- KEYS[1]: segment id. ARGV[1]: metric, the minimum remaining lifetime in whole seconds that a
-- URL must have to be chosen ("-" or empty: any live URL). Further arguments are accepted and
-- ignored, since the client's "mbget" call may be sent to this script.
-- Reply: the URL, or a string beginning with "#err: " when none qualifies.

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
local ktype = redis.call('TYPE', seg).ok
if ktype ~= 'none' and ktype ~= 'zset' then
  return '#err: key [' .. seg .. '] holds a ' .. ktype
end

local now = tonumber(redis.call('TIME')[1])
redis.call('ZREMRANGEBYSCORE', seg, '-inf', now)
-- "%.17g": an integer bound prints exactly, and a huge metric stays a huge bound (with "%d" it
-- would wrap to a negative one and let every URL through).
local urls = redis.call('ZRANGEBYSCORE', seg, string.format('%.17g', now + min_left), '+inf')
if #urls == 0 then
  return '#err: no URL for [' .. seg .. '] living ' .. min_left .. 's more'
end

-- The cursor counts the choices made for this segment; it expires together with the set.
local rr = seg .. '#rr'
local n = redis.call('INCR', rr)
local ttl = redis.call('PTTL', seg)
if ttl > 0 then
  redis.call('PEXPIRE', rr, ttl)
else
  redis.call('PERSIST', rr)
end
return urls[(n - 1) % #urls + 1]
