#!/bin/bash
# A server of an older version is set up anew: databases of every version that there ever was come to the present one with
# what they hold, also when the disk is full in the middle of it; one of a newer version is refused.
set -u
. "$(dirname "$0")/../support/checks.sh"
busybox syslogd -n -O /var/log/messages &
state=/var/lib/tavr
as_service() { setpriv --reuid=tavr-web --regid=tavr-web --clear-groups "$@"; }
old() { as_service "$TEST_SOURCE/tests/support/old_database.py" "$@"; }
sql() { as_service python3 -c 'import sqlite3, sys; c = sqlite3.connect(sys.argv[1]); print(*c.execute(sys.argv[2])); c.commit()' "$state/$1.db" "$2"; }
version() { sql "$1" 'PRAGMA user_version'; }

tavrctl setup >/dev/null
declare -A present=([accounts]= [signin]= [mail]=) source=([accounts]=accounts [signin]=signin_schema [mail]=mail_queue) versions=([accounts]=3 [signin]=9 [mail]=4)
for name in "${!present[@]}"; do
    present[$name]=$(old --shape $state/$name.db)
done
rows_of_old() {   # NAME: one that is there in every version, told by KEPT afterwards
    case $1 in
        accounts) sql accounts "INSERT INTO account (name, gid, password) VALUES ('old', 65537, '*')" ;;
        signin) sql signin "INSERT INTO secret (reference, account, sealed, state, made_boot, made) VALUES ('@old', 1026, x'00', 'active', 'b', 7)" ;;
        mail) sql mail "INSERT INTO mail (id, state, recipient, mark, message_id, date, boot, at, due) VALUES (7, 'sent', x'00', x'00', 'old', 7, 'b', 7, 7)" ;;
    esac
}
kept() {
    case $1 in
        accounts) sql accounts "SELECT uid, name, disabled, generation FROM account" ;;
        signin) sql signin "SELECT reference, account, state, made FROM secret" ;;
        mail) sql mail "SELECT id, state, message_id FROM mail" ;;
    esac
}
declare -A expected=([accounts]="(1026, 'old', 0, 0)" [signin]="('@old', 1026, 'active', 7)" [mail]="(7, 'sent', 'old')")
make_old() {   # NAME VERSION
    rm -f $state/"$1".db*
    old "$TEST_SOURCE/linux/${source[$1]}.cpp" "$2" "$state/$1.db" || fail "no $1 of version $2"
    [ "$2" = 0 ] || rows_of_old "$1" >/dev/null
}

# --- Every older version ---
for name in "${!present[@]}"; do
    for ((v = 0; v <= versions[$name]; ++v)); do
        make_old "$name" $v
        is 0 "*opened $state/$name.db*" tavrctl setup
        [ "$(old --shape $state/$name.db)" = "${present[$name]}" ] || fail "$name, version $v: $(old --shape $state/$name.db)"
        [ $v = 0 ] || [ "$(kept "$name")" = "${expected[$name]}" ] || fail "$name, version $v: $(kept "$name")"
    done
done

# --- A full disk in the middle: what is there stays whole, and goes on from there ---
for name in "${!present[@]}"; do
    make_old "$name" 1
    tar -C $state -cf /root/old.tar .
    refused=0
    for ((room = 0; ; room += 3 + room / 2)); do
        [ $room -lt 300 ] || { fail "$name: never enough"; break; }
        mount -t tmpfs -o size=16m,mode=700 small $state
        tar -C $state -xf /root/old.tar
        used=$(df --output=used $state | tail -n 1)
        mount -o "remount,size=$((used + 4 * room))k" $state
        output=$(tavrctl setup 2>&1)
        status=$?
        mount -o remount,size=16m $state
        if [ $status != 0 ]; then
            refused=$((refused + 1))
            [[ $output =~ tavrctl:\ $state/[a-z]+.db:\ (database or disk is full|disk I/O error) ]] || fail "$name, $room pages: $output"
            is 0 "*opened $state/mail.db*" tavrctl setup
        fi
        [ "$(old --shape $state/$name.db)" = "${present[$name]}" ] || fail "$name, $room pages: $(old --shape $state/$name.db)"
        [ "$(kept "$name")" = "${expected[$name]}" ] || fail "$name, $room pages: $(kept "$name")"
        umount $state
        [ $status != 0 ] || break
    done
    [ $refused -ge 3 ] || fail "$name: refused $refused times only"
done

# --- A newer one ---
is 0 '*' tavrctl setup
for name in "${!present[@]}"; do
    now=$(version "$name" | tr -dc 0-9)
    sql "$name" "PRAGMA user_version=$((now + 1))" >/dev/null
    is 1 "*$state/$name.db: made by a newer version of this program*" tavrctl setup
    is 1 $'*broken\tdatabases\t'"$state/$name.db: made by a newer version*install the version that made it*" tavrctl doctor
    sql "$name" "PRAGMA user_version=$now" >/dev/null
done
is 0 '*' tavrctl setup
[ $failures = 0 ]
