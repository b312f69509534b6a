#!/bin/bash
# GET /api/session of a signed-in user against a FastCGI program that only answers, behind the same lighttpd, in turn.
set -eu
here=$(cd "$(dirname "$0")" && pwd -P)
rounds=5 seconds=2
log=$(mktemp)
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null' EXIT

mkdir -p /run/tavr
tavrctl setup >"$log"
printf 'a password 1' | tavrctl user add alice --password-stdin >"$log"
cat >/tmp/bench.conf <<'CONF'
include "/usr/share/tavr-otp/lighttpd.conf"
fastcgi.server += ("/echo" => (("socket" => "/run/echo.sock", "check-local" => "disable")))
CONF
export TAVR_PORT=8099
base=http://127.0.0.1:$TAVR_PORT

rate() { wrk -t1 -c8 -d${seconds}s "$@" | awk '/Non-2xx/ { bad = 1 } /Requests\/sec/ { r = $2 } END { print bad ? "failed" : r }'; }
median() { sort -g | sed -n "$(((rounds + 1) / 2))p"; }

printf '%-10s %14s %14s %8s\n' workers 'floor (req/s)' 'session' ratio
for workers in 1 2; do
    tavr-otp-web --workers $workers 2>"$log" & web=$!
    "$here/fcgi_echo" /run/echo.sock $workers & echo=$!
    lighttpd -D -f /tmp/bench.conf 2>"$log" & front=$!
    until curl -sf $base/echo >/dev/null && [ "$(curl -s -o /dev/null -w '%{http_code}' $base/api/session)" = 401 ]; do sleep 0.05; done
    sid=$(curl -s -i -H 'Content-Type: application/json' -d '{"user":"alice","password":"a password 1"}' \
        $base/api/signin | sed -n 's/^set-cookie: sid=\([0-9a-f]\{32\}\);.*/\1/ip')
    : >/tmp/floor; : >/tmp/case; : >/tmp/ratio
    for _ in $(seq $rounds); do
        floor=$(rate $base/echo)
        case=$(rate -H "Cookie: sid=$sid" $base/api/session)
        echo "$floor" >>/tmp/floor; echo "$case" >>/tmp/case
        awk -v a="$case" -v b="$floor" 'BEGIN { printf "%.2f\n", a / b }' >>/tmp/ratio
    done
    printf '%-10s %14s %14s %8s\n' $workers "$(median </tmp/floor)" "$(median </tmp/case)" "$(median </tmp/ratio)"
    kill $web $echo $front; wait $web $echo $front 2>/dev/null || true
done
