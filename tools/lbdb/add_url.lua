-- Registers one local URL of a segment in the load-balancer DB.
-- KEYS[1]: segment id. ARGV[1]: the local URL. ARGV[2]: expiry in seconds, read as:
--   0 or less: never expires; 1..2592000 (30 days): that many seconds from now;
--   larger: an absolute Unix time, which must still lie in the future and not after the year
--   9999.
-- Reply: "OK <segment id>", or a string beginning with "#err: " on bad input.

local RELATIVE_MAX = 2592000
-- The last second of the year 9999. A later (or infinite) expiry is refused before anything is
-- written: Redis could not turn it into a key expiry, and the script would fail half-way.
local ABSOLUTE_MAX = 253402300799

if #KEYS ~= 1 then
  return '#err: expected 1 key, got ' .. #KEYS
end
local seg = KEYS[1]
local url = ARGV[1]
if url == nil or url == '' then
  return '#err: missing URL for [' .. seg .. ']'
end
local expiry = tonumber(ARGV[2] or '0')
if expiry == nil or expiry ~= math.floor(expiry) or expiry > ABSOLUTE_MAX then
  return '#err: invalid expiry [' .. tostring(ARGV[2]) .. ']'
end
local ktype = redis.call('TYPE', seg).ok
if ktype ~= 'none' and ktype ~= 'zset' then
  return '#err: key [' .. seg .. '] holds a ' .. ktype
end

local now = tonumber(redis.call('TIME')[1])
local score
if expiry <= 0 then
  score = 'inf'
elseif expiry <= RELATIVE_MAX then
  score = string.format('%d', now + expiry)
elseif expiry <= now then
  return '#err: expiry ' .. ARGV[2] .. ' has passed'
else
  score = string.format('%d', expiry)
end

-- Expired entries go first, so that the key's own expiry below follows the live ones only.
redis.call('ZREMRANGEBYSCORE', seg, '-inf', now)
redis.call('ZADD', seg, score, url)

-- The key and the round-robin cursor of "next" live as long as the latest-expiring URL, which may
-- now be shorter-lived than before; one URL without expiry keeps them for good. Either command
-- does nothing to a cursor that does not exist.
local top = redis.call('ZRANGE', seg, -1, -1, 'WITHSCORES')
for _, key in ipairs({seg, seg .. '#rr'}) do
  if top[2] == 'inf' then
    redis.call('PERSIST', key)
  else
    redis.call('EXPIREAT', key, top[2])
  end
end
return 'OK ' .. seg
