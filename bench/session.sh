#!/bin/bash
# GET /api/session of a signed-in user against a FastCGI program that only answers, behind the same lighttpd, in turn.
set -eu
. "$(dirname "$0")/served.sh"
seconds=2

set_up
printf 'a password 1' | tavrctl user add alice --password-stdin >"$log"
cat >/tmp/bench.conf <<'CONF'
include "/usr/share/tavr-otp/lighttpd.conf"
fastcgi.server += ("/echo" => (("socket" => "/run/echo.sock", "check-local" => "disable")))
CONF

rate() { wrk -t1 -c8 -d${seconds}s "$@" | awk '/Non-2xx/ { bad = 1 } /Requests\/sec/ { r = $2 } END { print bad ? "failed" : r }'; }
echo_rate() { rate $base/echo; }
session_rate() { rate -H "Cookie: sid=$sid" $base/api/session; }

heading workers 'echo (req/s)' 'session (req/s)'
for workers in 1 2; do
    "$here/fcgi_echo" /run/echo.sock $workers & echo=$!
    serve $workers /tmp/bench.conf
    until curl -sf $base/echo >/dev/null; do sleep 0.05; done
    sid=$(curl -s -i -H 'Content-Type: application/json' -d '{"user":"alice","password":"a password 1"}' \
        $base/api/signin | sed -n 's/^set-cookie: sid=\([0-9a-f]\{32\}\);.*/\1/ip')
    compare $workers echo_rate session_rate
    end_serving
    kill $echo; wait $echo 2>/dev/null || true
done
