#!/bin/bash
# Sign-ins with password and code among 10,000 accounts, against the hashes of a password that as many processes as there
# are workers make, in turn: no sign-in can do with less than one.
set -eu
. "$(dirname "$0")/served.sh"
accounts=10000 seconds=3

set_up
"$here/sign_ins_client" make $accounts
echo 1 >/tmp/from

# Others each time, since a code is good once.
sign_in_rate() {
    from=$(cat /tmp/from)
    echo $((from + accounts / rounds / 2)) >/tmp/from
    "$here/sign_ins_client" run $TAVR_PORT "$from" $seconds
}
hash_rate() { "$here/sign_ins_client" hashes $workers $seconds; }

heading workers 'hashes /s' 'sign-ins /s'
for workers in 1 2; do
    serve $workers /usr/share/tavr-otp/lighttpd.conf
    compare $workers hash_rate sign_in_rate
    end_serving
done
