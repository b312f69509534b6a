# Sourced by the benchmarks of the whole server: starts and ends it, takes floor and case in turn.
here=$(cd "$(dirname "$0")" && pwd -P)
rounds=5
log=$(mktemp)
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null' EXIT
export TAVR_PORT=8099
base=http://127.0.0.1:$TAVR_PORT

# set_up: accounts and state, on the disk that the build lies on, made anew.
set_up() {
    rm -rf "$here/served-state"
    mkdir -p "$here/served-state" /var/lib/tavr /run/tavr
    mount --bind "$here/served-state" /var/lib/tavr
    tavrctl setup >"$log"
}

# serve WORKERS CONF, until end_serving.
serve() {
    tavr-otp-web --workers "$1" 2>"$log" & web=$!
    lighttpd -D -f "$2" 2>"$log" & front=$!
    until [ "$(curl -s -o /dev/null -w '%{http_code}' $base/api/session)" = 401 ]; do sleep 0.05; done
}
end_serving() {
    kill $web $front
    wait $web $front 2>/dev/null || true
}

median() { sort -g | sed -n "$(((rounds + 1) / 2))p"; }

# heading WHAT FLOOR CASE, then compare WHAT FLOOR CASE, whose commands print so many a second: a line of medians.
heading() { printf '%-10s %16s %16s %8s\n' "$@" ratio; }
compare() {
    : >/tmp/floor; : >/tmp/case; : >/tmp/ratio
    for _ in $(seq $rounds); do
        floor=$($2)
        case=$($3)
        echo "$floor" >>/tmp/floor; echo "$case" >>/tmp/case
        awk -v a="$case" -v b="$floor" 'BEGIN { printf "%.2f\n", a / b }' >>/tmp/ratio
    done
    printf '%-10s %16s %16s %8s\n' "$1" "$(median </tmp/floor)" "$(median </tmp/case)" "$(median </tmp/ratio)"
}
