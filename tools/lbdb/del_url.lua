-- Unregisters one local URL of a segment in the load-balancer DB.
-- KEYS[1]: segment id. ARGV[1]: the local URL. Deleting a URL that is not registered is not an
-- error. Reply: "OK <number of live URLs left>", or a string beginning with "#err: ".

if #KEYS ~= 1 then
  return '#err: expected 1 key, got ' .. #KEYS
end
local seg = KEYS[1]
local url = ARGV[1]
if url == nil or url == '' then
  return '#err: missing URL for [' .. seg .. ']'
end
local ktype = redis.call('TYPE', seg).ok
if ktype ~= 'none' and ktype ~= 'zset' then
  return '#err: key [' .. seg .. '] holds a ' .. ktype
end

local now = tonumber(redis.call('TIME')[1])
redis.call('ZREMRANGEBYSCORE', seg, '-inf', now)
redis.call('ZREM', seg, url)
local left = redis.call('ZCARD', seg)
if left == 0 then
  -- Redis drops the empty set itself; the round-robin cursor goes with it.
  redis.call('DEL', seg .. '#rr')
else
  -- The key and the cursor live as long as the latest-expiring URL, which may just have been
  -- removed.
  local top = redis.call('ZRANGE', seg, -1, -1, 'WITHSCORES')
  for _, key in ipairs({seg, seg .. '#rr'}) do
    if top[2] == 'inf' then
      redis.call('PERSIST', key)
    else
      redis.call('EXPIREAT', key, top[2])
    end
  end
end
return 'OK ' .. left
