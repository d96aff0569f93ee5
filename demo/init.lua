-- The demo's start script. korvo runs "init.lua" from the program's directory and then
-- from the sound base directory (this one) once at start, before the sound engine is
-- up: sounds are played from the event handler and from command strings, not from here.

log(3, "demo init.lua on korvo " .. version .. ", lua_time_limit " .. config.lua_time_limit .. " ms")

-- A helper that sample command strings ("serial.txt") can call: flash(3)
function flash(times)
  for i = 1, times do
    send("LED ON")
    send("LED OFF")
  end
end

-- Every datagram sent to the event port (the HTTP port + 1) arrives here as text:
--   echo -n "play 21" | nc -u -w1 localhost 31009     (the jackpot voice)
--   echo -n "sound 11" | nc -u -w1 localhost 31009    (prints the ramp sound's table)
function eventHandler(event)
  local cmd, arg = event:match("^(%S+)%s*(.-)%s*$")
  if cmd == "play" then
    playSound(tonumber(arg))
  elseif cmd == "volume" then
    setVolume(tonumber(arg))
  elseif cmd == "stop" then
    stopAllSamples()
    fadeMusic(500)
  elseif cmd == "sound" then
    -- print shows a table as nested lines, in the log and on the web page's output
    print(getSound(tonumber(arg)) or ("no sound " .. arg))
  else
    log(3, "demo: unknown event '" .. event .. "'")
  end
end
