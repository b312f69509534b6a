#!/bin/bash
# The console's look over a server: all is well on a fresh one, and each thing that is broken is told once, with what to do.
set -u
. "$(dirname "$0")/../support/checks.sh"
busybox syslogd -n -O /var/log/messages &
echo 'tavr-www:x:64218:' >>/etc/group
tavrctl setup >/dev/null
tavrctl certificate install >/dev/null
tavrctl mail server show >/dev/null
port=$((20000 + RANDOM % 12000))
echo "TAVR_PORT=$port" >/etc/default/tavr-otp
printf '%s' 'pass word' | tavrctl user add alice --admin --password-stdin >/dev/null
mkdir -m 700 /usr/tavr/etc/preference/alice
chown tavr-web: /usr/tavr/etc/preference/alice

answers() { tavrctl doctor | grep -q "^ok"$'\t'"services"$'\t'"$1 answers"; }
until_answers() { for _ in {1..100}; do answers "$1" && return; sleep 0.1; done; fail "$1 does not answer"; }
start_web() { tavr-otp-web --workers 1 & web=$!; until_answers tavr-otp-web; }
start_api() { tavr-webapid & api=$!; until_answers tavr-webapid; }
start_lighttpd() { TAVR_PORT=$port lighttpd -D -f /usr/share/tavr-otp/lighttpd.conf & lighttpd=$!; until_answers tavr-otp-lighttpd; }
start_web
start_api
start_lighttpd

# --- All is well ---
# A clock that nobody keeps right and a disk that is rather full are the machine's.
page=$(tavrctl doctor) || fail "a fresh server is broken: $page"
wrong=$(grep -vE $'^ok\t|\t(clock|disk)\t' <<<"$page") && fail "a fresh server: $wrong"
[ "$(grep -c '^ok' <<<"$page")" -ge 12 ] || fail "too little was looked at: $page"
is 0 '{"broken":0,"checks":\[{"advice":"","area":"files","state":"ok","text":*"success":true,"warnings":?}' tavrctl --json doctor
is 4 '*root*' setpriv --reuid=64217 --regid=64217 --clear-groups tavrctl doctor

# broken BREAK MEND LINE: with BREAK done, exactly one line more is wrong, of the pattern LINE; after MEND none.
# (Where the state is a warning the command still ends with 0.)
broken() {
    local change=$1 mend=$2 pattern=$3 lines status expected=1
    eval "$change" || fail "cannot: $change"
    lines=$(tavrctl doctor)
    status=$?
    lines=$(grep -vE $'^ok\t|^warning\t(clock|disk)\t' <<<"$lines")
    [[ $lines != warning* ]] || expected=0
    [ $status = $expected ] || fail "$change: ended with $status: $lines"
    # shellcheck disable=SC2053   # a pattern
    [[ $lines == $pattern && $lines != *$'\n'* ]] || fail "$change: $lines"
    eval "$mend" || fail "cannot: $mend"
    lines=$(tavrctl doctor | grep -vE $'^ok\t|\t(clock|disk)\t') && fail "$mend: $lines"
}

# --- Files: owner and mode of each ---
for path in /etc/tavr /etc/tavr/tavrinfo.conf /etc/tavr/otp.key /etc/tavr/self-signed.pem /usr/tavr /usr/tavr/etc \
    /usr/tavr/etc/tavr_otp_enforce_custom_setting /usr/tavr/etc/preference/alice /run/tavr \
    /var/lib/tavr/policy.lock; do
    [ -e $path ] || { fail "there is no $path"; continue; }
    mode=0$(stat -c %a $path) owner=$(stat -c %U:%G $path) name=${path##*/}
    [ ${#mode} = 4 ] || mode=0$mode
    [[ $path = */otp.key || $path = */self-signed.pem ]] ||
        broken "chmod g+w,o+w $path" "chmod ${mode#0} $path" "broken"$'\t'"files"$'\t'"*$name*it should be $owner $mode: chown $owner and chmod $mode"
    is_another="broken"$'\t'"files"$'\t'"*$name is nobody:*chown $owner and chmod $mode"
    case $name in
        otp.key|policy.lock)   # without which key and policy cannot be used, which is told too
            chown nobody $path
            is 1 "*$is_another*" tavrctl doctor
            chown $owner $path ;;
        *) broken "chown nobody $path" "chown $owner $path" "$is_another" ;;
    esac
done
broken 'chmod g+r /var/lib/tavr/mail.db' 'chmod 600 /var/lib/tavr/mail.db*' $'broken\tfiles\t/var/lib/tavr/mail.db is tavr-web:tavr-web 0640*'
broken 'touch /var/lib/tavr/stray' 'rm /var/lib/tavr/stray' $'broken\tfiles\t/var/lib/tavr/stray is root:root *'
broken 'ln -s /etc/shadow /usr/tavr/etc/preference/alice/otp_secret' 'rm /usr/tavr/etc/preference/alice/otp_secret' \
    $'broken\tfiles\t*otp_secret is no regular file*'
broken 'rm /etc/tavrinfo.conf; cp /etc/tavr/tavrinfo.conf /etc/tavrinfo.conf' 'ln -sf tavr/tavrinfo.conf /etc/tavrinfo.conf' \
    $'broken\tfiles\t/etc/tavrinfo.conf is no link*'
broken 'mv /usr/bin/qrencode /usr/bin/away' 'mv /usr/bin/away /usr/bin/qrencode' $'broken\tprograms\t/usr/bin/qrencode is missing*'

# --- Accounts ---
broken 'tavrctl group leave administrators alice' 'tavrctl group join administrators alice' \
    $'warning\taccounts\t1 of the embedded store, 0 of them in administrators; nobody administers: tavrctl user add *'

# --- Settings ---
settings=/etc/tavr/tavrinfo.conf
cp $settings /root/settings
for line in 'no equals sign' '="no key"'; do
    broken "echo '$line' >>$settings" "cp /root/settings $settings" $'warning\tsettings\tline 3 of /etc/tavrinfo.conf is no key=*'
done
broken "echo 'sesion_idle=\"60\"' >>$settings" "cp /root/settings $settings" $'warning\tsettings\tline 3 of * sets "sesion_idle", which*'
broken "echo 'session_idle=\"59\"' >>$settings" "cp /root/settings $settings" $'broken\tsettings\tline 3 *session_idle is "59"*from 60 to 86400*'
broken "echo 'otp_enforce_option=\"Admin\"' >>$settings" "cp /root/settings $settings" $'broken\tsettings\t*otp_enforce_option is "Admin"*none user admin custom*'
broken ": >$settings" "cp /root/settings $settings" $'broken\tsettings\t*is empty: nobody gets a session*'
# Every setting that the documents name is known.
for key in $(grep -hE '^\| `' "$TEST_SOURCE"/doc/{files,mail,ldap,domain}.md | cut -d'|' -f2 | grep -oE '`[a-z]+_[a-z_]+`' | tr -d '`' | grep -E '^(session|audit|otp|ha|ldap|domain|mail|tls)_' | grep -v '_$' | sort -u); do
    case $key in *_password|*_user|*_group|domain_account) continue ;; esac   # no settings
    echo "$key=\"\"" >>$settings
    [[ $(tavrctl doctor) != *'which nothing here reads'* ]] || fail "the setting $key is not known"
    cp /root/settings $settings
done

# --- Key, databases, policy ---
sql() {   # DATABASE STATEMENT: as the service
    setpriv --reuid=64217 --regid=64217 --clear-groups python3 -c \
        'import sqlite3, sys; c = sqlite3.connect(sys.argv[1]); print(c.execute(sys.argv[2]).fetchone()); c.commit()' "/var/lib/tavr/$1.db" "$2"
}
key=/etc/tavr/otp.key
setpriv --reuid=64217 --regid=64217 --clear-groups google-authenticator -s /tmp/OTP_1026 >/dev/null || fail "no secret was sealed"
cp -a $key /root/key
is 0 $'*ok\tkey\t*' tavrctl doctor
broken "rev $key | tr 0-9 1-90 | rev >/root/other; sed 's/^[^ ]* /tavr-machine-key-1 /' /root/other >$key" "cp /root/key $key" $'broken\tkey\t*otp.key: *bring the key back*'
broken "echo none >$key" "cp /root/key $key" $'broken\tkey\t*'
broken 'rm $key' 'cp -a /root/key $key' $'broken\tkey\t/etc/tavr/otp.key: machine key missing; bring it back from its backup*'
rm $key
is 1 '*otp.key: is missing while there are secrets sealed with it*' tavrctl setup
sql signin 'DELETE FROM code' >/dev/null
sql signin 'DELETE FROM secret' >/dev/null
is 1 $'*broken\tkey\t*machine key missing; nothing is sealed with it: tavrctl setup makes a new one*' tavrctl doctor
is 0 '*made /etc/tavr/otp.key' tavrctl setup
is 0 $'*ok\tkey\t*' tavrctl doctor
cp -a /root/key $key
version=$(sql mail 'PRAGMA user_version' | tr -dc 0-9)
broken 'sql mail "PRAGMA user_version=999" >/dev/null' "sql mail 'PRAGMA user_version=$version' >/dev/null" $'broken\tdatabases\t/var/lib/tavr/mail.db: made by a newer version*'
# While there is a last good copy, a broken policy is mended from it, and that is no fault.
picks=/usr/tavr/etc/tavr_otp_enforce_custom_setting
mv /var/lib/tavr/policy.copy /root/
broken "echo '{' >$picks" "echo '{}' >$picks" $'broken\tpolicy\t*cannot be used*'

# --- Certificate ---
pair() {   # NAME DAYS
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days "$2" -subj "/CN=$1" -keyout "/root/$1.key" -out "/root/$1.pem" 2>/dev/null
    chmod 600 "/root/$1.key"
}
pair one 60
pair soon 10
named() { printf 'tls_certificate="%s"\ntls_key="%s"\n' "$1" "$2" >>$settings; }
back="cp /root/settings $settings; tavrctl certificate install >/dev/null"
broken 'named /root/one.pem /root/soon.key' "$back" $'broken\tcertificate\tthe key in /root/soon.key is not that of*'
broken 'named /root/none.pem /root/one.key' "$back" $'broken\tcertificate\t/root/none.pem: No such file*'
broken 'named /root/one.pem ""' "$back" $'broken\tcertificate\t*name a file each*'
broken 'named /root/soon.pem /root/soon.key; tavrctl certificate install >/dev/null' "$back" $'warning\tcertificate\t/root/soon.pem, good until 20*renew it*'
broken 'named /root/one.pem /root/one.key' "$back" $'warning\tcertificate\tanother one is served; systemctl reload*'
broken 'named /root/one.pem /root/one.key; chmod 644 /root/one.key; tavrctl certificate install >/dev/null' "chmod 600 /root/one.key; $back" \
    $'warning\tcertificate\teverybody on this machine can read the key*'

# --- Services ---
stop() { kill "$1"; wait "$1" 2>/dev/null; true; }
broken 'stop $web' start_web $'broken\tservices\ttavr-otp-web does not answer*systemctl status tavr-otp-web*'
start_confined() {   # where it can change nothing of the state
    unshare --mount sh -c 'mount --bind /var/lib/tavr /var/lib/tavr && mount -o remount,bind,ro /var/lib/tavr &&
        exec tavr-otp-web --workers 1' & web=$!
    until [ -S /run/tavr/otp-web.sock ]; do sleep 0.05; done
}
broken 'stop $web; start_confined' 'stop $web; start_web' $'broken\tservices\ttavr-otp-web does not answer*'
broken 'stop $api' start_api $'broken\tservices\ttavr-webapid does not answer*'
broken 'stop $lighttpd' start_lighttpd $'broken\tservices\ttavr-otp-lighttpd does not answer: port *'

# --- Clock and disk ---
broken "touch -d '+2 hours' /var/lib/tavr/signin.db" "touch /var/lib/tavr/signin.db" $'broken\tclock\tit is before the last change of*'
broken 'cp -a /etc/tavr /root/config; mount -t tmpfs -o size=8m,mode=755 config /etc/tavr; cp -a /root/config/. /etc/tavr' 'umount /etc/tavr' \
    $'broken\tdisk\t/etc/tavr: ? MiB free; make room*'
stop "$web"; stop "$api"; stop "$lighttpd"
[ $failures = 0 ]
