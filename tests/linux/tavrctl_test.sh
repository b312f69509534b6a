#!/bin/bash
# The console on a fresh system, as its users call it.
set -u
. "$(dirname "$0")/../support/checks.sh"
owned() {   # OWNER MODE PATH
    local state
    state=$(stat -c '%U:%G %a' "$3" 2>&1)
    [ "$state" = "$1 $2" ] || fail "$3 is $state, not $1 $2"
}

# --- Set-up ---
is 1 '*cannot open /var/lib/tavr/accounts.db*' tavrctl user list
is 0 '*made /etc/tavr/otp.key*' tavrctl setup
owned root:root 755 /etc/tavr
owned root:root 644 /etc/tavr/tavrinfo.conf
owned root:tavr-web 440 /etc/tavr/otp.key
owned tavr-web:tavr-web 755 /usr/tavr/etc
owned tavr-web:tavr-web 700 /usr/tavr/etc/preference
owned tavr-web:tavr-web 644 /usr/tavr/etc/tavr_otp_enforce_custom_setting
owned tavr-web:tavr-web 700 /var/lib/tavr
owned tavr-web:tavr-web 600 /var/lib/tavr/accounts.db
owned tavr-web:tavr-web 600 /var/lib/tavr/signin.db
owned tavr-web:tavr-web 600 /var/lib/tavr/mail.db
owned root:root 755 /run/tavr
is 0 'tavr/tavrinfo.conf' readlink /etc/tavrinfo.conf
is 0 '{}' cat /usr/tavr/etc/tavr_otp_enforce_custom_setting
is 0 '*maillang="enu"*' cat /etc/tavrinfo.conf

printf '{"local_user":["1026"]}\n' >/usr/tavr/etc/tavr_otp_enforce_custom_setting
echo 'ours="kept"' >>/etc/tavr/tavrinfo.conf
key=$(sha256sum /etc/tavr/otp.key)
chmod 777 /var/lib/tavr
chown root /usr/tavr/etc
rm /etc/tavrinfo.conf
output=$(tavrctl setup --json) || fail "set-up a second time"
for step in '{"did":"mended","path":"/var/lib/tavr"}' '{"did":"mended","path":"/usr/tavr/etc"}' '{"did":"made","path":"/etc/tavrinfo.conf"}' \
    '{"did":"kept","path":"/etc/tavr/otp.key"}' '"success":true'; do
    [[ $output == *"$step"* ]] || fail "$step is not in $output"
done
owned tavr-web:tavr-web 700 /var/lib/tavr
owned tavr-web:tavr-web 755 /usr/tavr/etc
is 0 '{"local_user":\["1026"\]}' cat /usr/tavr/etc/tavr_otp_enforce_custom_setting
is 0 '*ours="kept"*' cat /etc/tavrinfo.conf
[ "$key" = "$(sha256sum /etc/tavr/otp.key)" ] || fail "the machine key has changed"
is 0 'kept*kept*kept*kept*kept*' tavrctl setup
# Group and mode of the key are put right, unless others than root could have made it another key.
chown root:root /etc/tavr/otp.key
chmod 444 /etc/tavr/otp.key
is 0 '*mended /etc/tavr/otp.key' tavrctl setup
owned root:tavr-web 440 /etc/tavr/otp.key
for change in 'chmod 460' 'chmod 442' 'chown nobody'; do
    $change /etc/tavr/otp.key
    before=$(stat -c '%U:%G %a' /etc/tavr/otp.key)
    is 1 '*otp.key: *others than root can write it*' tavrctl setup
    is 0 "$before" stat -c '%U:%G %a' /etc/tavr/otp.key
    chown root:tavr-web /etc/tavr/otp.key
    chmod 440 /etc/tavr/otp.key
done
[ "$key" = "$(sha256sum /etc/tavr/otp.key)" ] || fail "the machine key has changed"

# What one that was killed left beside the settings' place does not count.
mv /etc/tavr/tavrinfo.conf /root/settings
printf '# Sett' >/etc/tavr/.tavrinfo.conf.new
is 0 '*made /etc/tavr/tavrinfo.conf*' tavrctl setup
is 0 $'# Settings *\nmaillang="enu"' cat /etc/tavr/tavrinfo.conf
is 1 '' test -e /etc/tavr/.tavrinfo.conf.new
mv /root/settings /etc/tavr/tavrinfo.conf

# Set-up goes nowhere through a link, and takes nothing away from what is there.
rm /etc/tavrinfo.conf
echo mine >/etc/tavrinfo.conf
is 1 '*move what is there*' tavrctl setup
is 0 mine cat /etc/tavrinfo.conf
rm /etc/tavrinfo.conf
rmdir /usr/tavr/etc/preference
mkdir /tmp/elsewhere
ln -s /tmp/elsewhere /usr/tavr/etc/preference
is 1 '*/usr/tavr/etc/preference*' tavrctl setup
owned root:root 755 /tmp/elsewhere
rm /usr/tavr/etc/preference
mkdir /usr/tavr/etc/preference
is 1 '*/usr/tavr/etc/preference*' tavrctl setup   # root's, in a folder that is not
rmdir /usr/tavr/etc/preference
is 0 '*made /usr/tavr/etc/preference*' tavrctl setup

# --- Users ---
is 0 'added user alice with number 1026, an administrator' \
    tavrctl user add ' Alice ' --admin --mail alice@home.example --desc 'Alice "A."' --password-stdin <<<'pass one'
is 0 '{"success":true,"user":{"description":"","disabled":false,"gid":65537,"is_admin":false,"mail":"","name":"bob","uid":1027}}' \
    tavrctl --json user add bob --password-stdin < <(printf 'no line feed')
! grep -aqr 'pass one' /var/lib/tavr || fail "a password in the clear"
is 5 'tavrctl: there is a user alice already' tavrctl user add ALICE --password-stdin <<<x
is 5 '*"err":"user_exists"*' tavrctl user add ALICE --password-stdin --json <<<x

is 2 '*refused: empty' tavrctl user add carol --password-stdin </dev/null
is 2 '*refused: empty' tavrctl user add carol --password-stdin <<<''
is 2 '*refused: holds a NUL' tavrctl user add carol --password-stdin < <(printf 'a\0b')
is 2 '*refused: too long' tavrctl user add carol --password-stdin < <(head -c 512 /dev/zero | tr '\0' x)
is 2 '*refused: too long' tavrctl user add carol --password-stdin < <(head -c 5000 /dev/zero | tr '\0' x)
is 2 '*--password-stdin is required*' tavrctl user add carol
is 2 '*no name*' tavrctl user add carol/x --password-stdin <<<x
is 2 '*no name*' tavrctl user add '' --password-stdin <<<x
is 2 '*no name*' tavrctl user add $'carol\n' --password-stdin <<<x
is 2 '*no name*' tavrctl user add "$(head -c 500 /dev/zero | tr '\0' x)" --password-stdin <<<x
is 2 "*directory's*" tavrctl user add 'CORP\carol' --password-stdin <<<x
is 2 "*directory's*" tavrctl user add carol@office.example --password-stdin <<<x
for mail in carol @home.example carol@ 'a@b@c' 'a b@c.example' $'a@b.example\nBcc: d@e.example' "$(head -c 250 /dev/zero | tr '\0' x)@home.example"; do
    is 2 '*mail address is refused*' tavrctl user add carol --mail "$mail" --password-stdin <<<x
done
is 2 '*description is refused*' tavrctl user add carol --desc $'a\tb' --password-stdin <<<x
is 3 'tavrctl: there is no user carol' tavrctl user passwd carol --password-stdin <<<x
is 1 '*cannot read the password*' tavrctl user add carol --password-stdin </tmp

is 0 'added user -rf with number 1028' tavrctl user add --password-stdin -- -rf <<<x
is 0 'removed user -rf' tavrctl user remove -- -rf

list=$'1026\talice\tadministrator\talice@home.example\tAlice "A."\n1027\tbob\t-\t-\t'
is 0 "$list" tavrctl user list
is 0 '*"users":\[*"name":"alice"*"name":"bob"*\],"success":true}' tavrctl user list --json

is 0 'changed user bob' tavrctl user set bob --desc=-x --mail bob@home.example
is 0 $'*1027\tbob\t-\tbob@home.example\t-x' tavrctl user list
is 0 'changed user bob' tavrctl user set bob --mail ''
is 0 $'*1027\tbob\t-\t-\t-x' tavrctl user list
is 0 'changed user bob' tavrctl user set bob --desc=
is 0 "$list" tavrctl user list
is 2 '*give --mail or --desc*' tavrctl user set bob
is 3 '*no user carol' tavrctl user set carol --mail ''

# A removed user's things go, and the next one of the name inherits nothing.
mkdir /usr/tavr/etc/preference/bob && echo x >/usr/tavr/etc/preference/bob/otp_secret
chown -R tavr-web:tavr-web /usr/tavr/etc/preference/bob
is 0 'removed user bob' tavrctl user remove bob
is 2 '*' ls /usr/tavr/etc/preference/bob
is 3 '*no user bob' tavrctl user remove bob
is 0 'added user bob with number 1029' tavrctl user add bob --password-stdin <<<x

# --- Groups ---
is 0 'added group crew with number 65538' tavrctl group add Crew --desc 'On board'
is 5 '*a group crew already' tavrctl group add crew
is 0 'user bob joined crew' tavrctl group join crew bob
is 0 'user bob is in crew already' tavrctl group join crew bob
is 0 $'65536\tadministrators\talice\t*\n65538\tcrew\tbob\tOn board\n65537\tusers\tall\t*' tavrctl group list
is 0 '*{"description":"On board","gid":65538,"members":\["bob"\],"name":"crew"}*' tavrctl group list --json
is 0 'user bob left crew' tavrctl group leave crew bob
is 3 '*is not in crew' tavrctl group leave crew bob
is 4 '*primary group*' tavrctl group leave users bob
is 3 '*no group pirates' tavrctl group join pirates bob
is 3 '*no user carol' tavrctl group join crew carol
is 4 '*stays' tavrctl group remove administrators
is 0 'removed group crew' tavrctl group remove crew
is 3 '*no group crew' tavrctl group remove crew
is 0 'added group crew with number 65539' tavrctl group add crew
is 0 'user bob joined administrators' tavrctl group join administrators bob
is 0 $'*1029\tbob\tadministrator\t*' tavrctl user list

# --- Two-step sign-in ---
is 0 'alice: not enrolled' tavrctl otp status Alice
is 0 '{"closed":false,"enrolled":false,"success":true,"uid":1026,"user":"alice"}' tavrctl otp status alice --json
is 3 '*"err":"no_such_user"*' tavrctl otp status carol --json
mkdir -m 700 /usr/tavr/etc/preference/alice && echo 'GEZDGNBVGY3TQOJQ' >/usr/tavr/etc/preference/alice/otp_secret
chmod 600 /usr/tavr/etc/preference/alice/otp_secret
chown -R tavr-web:tavr-web /usr/tavr/etc/preference/alice
is 1 '*cannot be told*' tavrctl otp status alice
is 1 '*"err":"otp_unavailable"*' tavrctl otp status alice --json

is 1 '*the secret is not removed yet*' bash -c 'chmod 777 /usr/tavr/etc/preference/alice; tavrctl otp reset alice'
chmod 700 /usr/tavr/etc/preference/alice
is 0 'alice: not enrolled' tavrctl otp status alice   # goes on where the reset was cut
is 2 '*' ls /usr/tavr/etc/preference/alice/otp_secret
is 0 'removed the second step of alice and ended its sessions' tavrctl otp reset Alice
is 0 '{"sessions_ended":0,"success":true,"uid":1026,"user":"alice"}' tavrctl otp reset alice --json --yes
is 3 '*no user carol' tavrctl otp reset carol

is 0 'the second step of alice was neither closed nor waiting' tavrctl otp open Alice
is 0 '{"opened":false,"success":true,"user":"alice"}' tavrctl otp open alice --json
is 3 '*no user carol' tavrctl otp open carol
is 4 'tavrctl: alice is not enrolled and needs no code' tavrctl otp code alice
is 4 '*"err":"not_enrolled"*' tavrctl otp code alice --minutes 5 --json
is 3 '*no user carol' tavrctl otp code carol
for minutes in 0 1441 -5 x ''; do
    is 2 '*' tavrctl otp code alice "--minutes=$minutes"
done

# --- Disabled users ---
is 0 'disabled user bob and ended its sessions' tavrctl user disable Bob
is 0 $'*1029\tbob\tadministrator,disabled\t*' tavrctl user list
is 0 '*"disabled":true*' tavrctl user disable bob --json
is 0 'enabled user bob' tavrctl user enable bob
is 0 '*"disabled":false*' tavrctl user enable bob --json
is 3 '*no user carol' tavrctl user disable carol
is 3 '*no user carol' tavrctl user enable carol

# --- Sessions: those of real sign-ins are in tests/flow/console_test.mjs ---
is 0 '' tavrctl session list
is 0 '' tavrctl session list alice
is 0 '{"sessions":\[*\],"success":true}' tavrctl session list --json
is 3 '*no user carol' tavrctl session list carol
is 0 'ended the sessions of alice: 0' tavrctl session end alice
is 0 '{"sessions_ended":0,"success":true,"user":"alice"}' tavrctl session end alice --json
for id in 0123456789abcdef 0123456789ABCDEF 0123 zz '*' "$(head -c 500 /dev/zero | tr '\0' a)"; do
    is 3 'tavrctl: there is no such session' tavrctl session end --id "$id"
done
is 2 '*' tavrctl session end
is 2 '*' tavrctl session end alice --id 0123456789abcdef

# --- The policy ---
is 0 'added user pat with number 1030' tavrctl user add pat --password-stdin <<<x
picks=/usr/tavr/etc/tavr_otp_enforce_custom_setting
echo '{}' >$picks
is 0 $'option\tnone\nlocal_user\t0\nlocal_group\t0\ndomain_user\t0\n*' tavrctl enforce show
is 0 '{"option":"none","picks":{"domain_group":0,*,"local_user":0},"success":true}' tavrctl enforce show --json
is 0 'the option is user' tavrctl enforce option user
is 0 '{"option":"admin","success":true}' tavrctl enforce option admin --json
is 0 '*otp_enforce_option="admin"*' cat /etc/tavrinfo.conf
is 0 '*ours="kept"*' cat /etc/tavrinfo.conf
for value in '' Custom all; do
    is 2 '*VALUE*' tavrctl enforce option "$value"
done
is 0 'alice: two-step sign-in is demanded, as the option demands it of administrators, and this is one*' tavrctl enforce explain alice
is 0 'pat: two-step sign-in is not demanded, as the option demands it of administrators alone*' tavrctl enforce explain pat
is 0 '2 picked as local_user; this counts with the option custom, and it is admin' tavrctl enforce add local_user Alice pat
is 0 '{"local_user":\["1026","1030"\]}' cat $picks
is 0 'the option is custom' tavrctl enforce option custom
is 0 '1 picked as local_group' tavrctl enforce add local_group users
is 0 '{"option":"custom","settings":\[{"id":"1030","is_enforced":false}\],"success":true,"type":"local_user"}' \
    tavrctl enforce remove local_user pat --json
is 0 '{"local_group":\["65537"\],"local_user":\["1026"\]}' cat $picks
is 0 $'1026\talice\tpicked\tAlice "A."' tavrctl enforce list local_user
is 0 $'*1030\tpat\t-\t' tavrctl enforce list local_user --filter unenforced
is 0 $'1030\tpat\t-\t' tavrctl enforce list local_user --filter all --offset 2 --limit 1
is 0 '{"rows":\[{"desc":"","id":"1030","is_enforced":false,"name":"pat"}\],"success":true,"total":1}' \
    tavrctl enforce list local_user --filter all --query PA --json
is 0 '' tavrctl enforce list local_user --query nobody
is 1 '*"err":"directory_not_configured"*' tavrctl enforce list ldap_user --json
is 0 $'pat: two-step sign-in is demanded, as a group of the account is picked\noption\tcustom\naccount\t1030, local, no administrator\ngroups\t65537\nin local_user\tno\nin local_group\t65537' \
    tavrctl enforce explain ' PAT '
is 0 '{"because":"user_entry","demanded":true,"group_entries":\[65537\],"groups":\[65537,65536\],"is_admin":true,"kind":1,"option":"custom","success":true,"uid":1026,"user":"alice","user_entry":true}' \
    tavrctl enforce explain alice --json
is 3 '*no user nobody' tavrctl enforce explain nobody
is 3 '*no user nobody' tavrctl enforce add local_user pat nobody
is 3 '*no group nobody' tavrctl enforce add local_group nobody
is 2 '*no type local_users*' tavrctl enforce add local_users pat
is 2 '*pat is local, not of the type ldap_user' tavrctl enforce add ldap_user pat
is 2 '*no name*' tavrctl enforce add local_user $'bo\tb'
is 2 '*NAME*' tavrctl enforce add local_user
is 2 '*pat is no number' tavrctl enforce remove local_user pat --numbers
is 0 '{"local_group":\["65537"\],"local_user":\["1026"\]}' cat $picks
is 0 '1 picked as local_user' tavrctl enforce add local_user pat
is 0 '2 not picked any more as local_user' tavrctl enforce remove local_user --numbers 1026 1030
is 0 '{"local_group":\["65537"\],"local_user":\[\]}' cat $picks
rm $picks
is 0 '*picked*' tavrctl enforce list local_group
is 0 '{"local_group":\["65537"\],"local_user":\[\]}' cat $picks
rm $picks
is 0 "*kept $picks*" tavrctl setup   # restored before anything could make an empty one
is 0 '{"local_group":\["65537"\],"local_user":\[\]}' cat $picks
rm /var/lib/tavr/policy.copy
echo '[]' >$picks
for command in show 'option custom' 'list local_user' 'add local_user pat' 'explain pat'; do
    # shellcheck disable=SC2086   # words
    is 1 '*"err":"policy_unavailable"*' tavrctl enforce $command --json
done
is 1 "*$picks: cannot be used*" tavrctl setup
is 0 'the option is none' tavrctl enforce option none
is 0 '\[\]' cat $picks
echo '{}' >$picks
is 0 'removed user pat' tavrctl user remove pat
is 4 '*must be run by root*' setpriv --reuid tavr-web --regid tavr-web --clear-groups tavrctl enforce option none
is 4 '*must be run by root*' setpriv --reuid tavr-web --regid tavr-web --clear-groups tavrctl enforce add local_user pat

# --- Audit ---
stamp='20[0-9][0-9]-[0-9][0-9]-[0-9][0-9]T[0-9][0-9]:[0-9][0-9]:[0-9][0-9]Z'
audited() { tavrctl audit --account "$1" | cut -f 2- | tail -n "$2"; }
is 0 "$stamp"$'\tpolicy\tadopted\tconsole\tchanged\t-\n'"$stamp"$'\taccount\tadded\tconsole\t-\talice\n*' tavrctl audit
is 0 $'account\tdisabled\tconsole\t-\tbob\naccount\tenabled\tconsole\t-\tbob\naccount\tenabled\tconsole\t-\tbob' audited ' BOB ' 3
is 0 $'reset\tdone\tconsole\t-\talice\nsession\tended\tconsole\tall\talice\nsession\tended\tconsole\tall\talice' audited alice 3
is 0 $'account\tadded\tconsole\t-\t-rf\naccount\tremoved\tconsole\t-\t-rf' audited -rf 2
is 0 $'*recovery-address\tchanged\tconsole\t-\tbob\n*' audited bob 99
is 0 '*"account":"alice","address":"console","detail":"-","event":"account","id":2,"outcome":"added","time":"20*Z","uid":1026*"success":true}' \
    tavrctl audit --json
is 0 '' tavrctl audit --account nobody
is 0 '' tavrctl audit --since 2100-01-01
is 0 "$stamp"'*' tavrctl audit --since 1970-01-01T00:00:00Z
is 0 "$stamp"'*' tavrctl audit --since 1h
is 0 "$stamp"'*' tavrctl audit --since "$(date -u +%Y-%m-%d)"
for time in '' yesterday 1 1y -1h 99999999999999999999h 2026-02-30 2026-13-01 2026-01-01T25:00 '2026-01-01 x' 20260101; do
    [ -z "$time" ] || is 2 '*--since takes*' tavrctl audit "--since=$time"
done
! tavrctl audit --json | grep -q 'pass one\|home.example' || fail "a secret or an address in the audit"

tavrctl audit --follow --account bob >/tmp/followed &
follower=$!
tavrctl audit --follow --json >/tmp/followed.json &
json_follower=$!
waits() {   # FILE PATTERN: until a line of the file matches
    for _ in $(seq 100); do
        if grep -q "$2" "$1"; then return; fi
        sleep 0.1
    done
    fail "$2 did not come to $1: $(tail -n 3 "$1")"
}
waits /tmp/followed 'account.added'
waits /tmp/followed.json '"event":"session"'
before=$(wc -l </tmp/followed)
is 0 'ended the sessions of bob: 0' tavrctl session end bob
is 0 'ended the sessions of alice: 0' tavrctl session end alice
waits /tmp/followed $'session\tended\tconsole\tall\tbob'
waits /tmp/followed.json '^{"account":"bob".*"event":"session".*}$'
[ "$(wc -l </tmp/followed)" = $((before + 1)) ] || fail "following bob shows more than bob: $(cat /tmp/followed)"
kill "$follower" "$json_follower"
wait "$follower" "$json_follower" 2>/dev/null
is 1 '*cannot write to standard output*' timeout 20 bash -c 'tavrctl audit --follow >/dev/full'

# --- Questions, on a terminal ---
is 0 'added user eve with number 103*' tavrctl user add eve --password-stdin <<<x
on_terminal() {   # ANSWER COMMAND
    printf '%s\n' "$1" | script -qec "$2" /dev/null
}
is 1 '*Remove user eve*nothing was changed*' on_terminal n 'tavrctl user remove eve'
is 1 '*nothing was changed*' on_terminal '' 'tavrctl otp reset eve'
is 0 '*removed the second step of eve*' on_terminal y 'tavrctl otp reset eve'
is 0 '*removed user eve*' on_terminal x 'tavrctl user remove eve --yes'

# --- Use ---
is 2 '*' tavrctl
is 2 '*' tavrctl user
is 2 '*' tavrctl users
is 2 '*"err":"usage"*' tavrctl user list --jsonn --json
is 2 '*' tavrctl user add a b --password-stdin
is 0 'tavrctl [0-9]*' tavrctl --version
is 0 '*--password-stdin*' tavrctl user add --help
is 1 '*cannot write to standard output*' bash -c 'tavrctl user list >/dev/full'

# --- Mails ---
is 0 'no mail server is set up' tavrctl mail server show
is 0 '{"server":null,"success":true}' tavrctl mail server show --json
is 2 '*nothing to set*' tavrctl mail server
is 2 '*without --from' tavrctl mail server --host mx.example
is 2 '*without --host' tavrctl mail server --from nas@example.org
is 2 '*--host takes*' tavrctl mail server --host 'mx example' --from nas@example.org
is 2 '*--from takes*' tavrctl mail server --host mx.example --from 'nas@example.org,eve@example.org'
is 2 '*--port*' tavrctl mail server --host mx.example --from nas@example.org --port 0
is 2 '*--security*' tavrctl mail server --host mx.example --from nas@example.org --security ssl
is 2 '*--ca-file takes*' tavrctl mail server --host mx.example --from nas@example.org --ca-file nothing.pem
is 2 '*--ca-file takes*' tavrctl mail server --host mx.example --from nas@example.org --ca-file /etc/shadow
is 2 '*--user takes*' tavrctl mail server --host mx.example --from nas@example.org --user $'a\nb'
is 1 '*no mail server is set up*' tavrctl mail test alice@example.org
is 0 $'mx.example\t587\tstarttls\t-\tno password\tnas@example.org\t-' tavrctl mail server --host mx.example --from nas@example.org
is 0 $'mx.example\t465\ttls\tnas\twith a password\tnas@example.org\t-' \
    tavrctl mail server --security tls --user nas --password-stdin <<<'pa"ss word'
owned root:tavr-web 440 /etc/tavr/secrets
is 0 'mail_password="pa"ss word"' cat /etc/tavr/secrets
is 0 '{"server":{"ca_file":"","from":"nas@example.org","host":"mx.example","password":true,"port":2525,"security":"tls","user":""},"success":true}' \
    tavrctl mail server --user= --port 2525 --json
is 0 '*ours="kept"*mail_server="mx.example"*' cat /etc/tavr/tavrinfo.conf
is 1 '*control character*' tavrctl mail server --password-stdin <<<$'a\tb'
is 2 '*no mail address*' tavrctl mail test 'alice@example.org,eve@example.org'
is 1 '*tavr-webapid does not run*' tavrctl mail test alice@example.org
is 1 '*"err":"no_service"*' tavrctl mail test alice@example.org --json
is 0 '' tavrctl mail queue
is 3 '*no mail with the number 1 waits' tavrctl mail queue retry 1
is 3 '*"err":"no_such_mail"*' tavrctl mail queue drop 1 --json
is 2 '*' tavrctl mail queue drop
is 0 'no mail server is set up' tavrctl mail server off

# --- Mail accounts of users; what needs a mail server is in tests/webapi/mail_calls_test.cpp ---
add() { tavrctl mail-account add alice "$@"; }
is 0 '' tavrctl mail-account list alice
is 0 'added mail account home of alice, the default, which was not tested' \
    add home --host mx.home.example --from alice@home.example --user alice --password-stdin --no-test <<<'mail word'
is 0 '{"mail_account":{"alias":"b*ro","from":"a@b.example","host":"::1","is_default":false,"port":465,"security":"tls","type":"smtp","user":""},"success":true,"tested_to":null,"user":"alice"}' \
    add büro --host ::1 --from a@b.example --security tls --no-test --json
is 0 $'büro\t-\t::1\t465\ttls\t-\ta@b.example\nhome\tdefault\tmx.home.example\t587\tstarttls\talice\talice@home.example' tavrctl mail-account list Alice
owned tavr-web:tavr-web 600 /usr/tavr/etc/preference/alice/emailaccount.db
! grep -aqr 'mail word' /usr/tavr/etc /var/lib/tavr || fail "a mail password in the clear"
is 5 '*a mail account home already' add home --host mx.home.example --from a@b.example --no-test
is 0 'mail account büro is the default of alice' tavrctl mail-account default alice büro
is 0 $'büro\tdefault\t*home\t-\t*' tavrctl mail-account list alice
is 0 'added mail account third of alice, the default, which was not tested' add third --host mx.example --from a@b.example --default --no-test
is 0 'removed mail account third of alice; no other is the default now' tavrctl mail-account remove alice third
is 0 '{"alias":"b*ro","success":true,"user":"alice"}' tavrctl mail-account remove alice büro --yes --json
is 0 '*"mail_accounts":\[*"alias":"home"*\],"success":true}' tavrctl mail-account list alice --json
is 3 '*no mail account third' tavrctl mail-account remove alice third
is 3 '*"err":"no_such_mail_account"*' tavrctl mail-account default alice third --json
is 3 '*no mail account third' tavrctl mail-account test alice third
is 3 '*no user carol' tavrctl mail-account list carol
is 2 '*the alias is*' add '' --host mx.example --from a@b.example --no-test
is 2 '*the alias is*' add $'a\nb' --host mx.example --from a@b.example --no-test
is 2 '*the server is*' add x --host 'mx example' --from a@b.example --no-test
is 2 '*the server is*' add x --from a@b.example --no-test
is 2 '*the port is none of 25, 465 and 587' add x --host mx.example --port 2525 --from a@b.example --no-test
is 2 '*the sender is*' add x --host mx.example --from 'a@b.example,c@d.example' --no-test
is 2 '*the sender is*' add x --host mx.example --no-test
is 2 '*the name to log in with is*' add x --host mx.example --from a@b.example --user $'a\nb' --password-stdin --no-test <<<x
is 2 '*go together' add x --host mx.example --from a@b.example --user alice --no-test
is 2 '*go together' add x --host mx.example --from a@b.example --password-stdin --no-test <<<x
is 2 '*no mail address*' add x --host mx.example --from a@b.example --to 'a@b.example c@d.example'
is 2 '*--security*' add x --host mx.example --from a@b.example --security ssl
is 1 '*tavr-webapid does not run*' add x --host mx.example --from a@b.example
is 1 '*"err":"no_service"*' tavrctl mail-account test alice home --json
is 0 $'home\t-\t*' tavrctl mail-account list alice
chmod 000 /usr/tavr/etc/preference/alice/emailaccount.db
is 1 '*database: cannot read*' tavrctl mail-account list alice
chmod 600 /usr/tavr/etc/preference/alice/emailaccount.db
is 0 'mail_password=""' cat /etc/tavr/secrets

# --- Rights ---
as() { setpriv --reuid "$1" --regid "$1" --clear-groups "${@:2}"; }
is 0 $'1026\talice*' as 64217 tavrctl user list
is 4 '*must be run by root' as 64217 tavrctl setup
is 4 '*must be run by root or by tavr-web' as 1000 tavrctl user list
for command in audit 'otp reset bob' 'otp open bob' 'otp code bob' 'session list' 'session end bob' 'session end --id 0123456789abcdef' 'mail server --host a.b' 'mail server off' 'mail queue' 'mail queue drop 1' 'mail test a@b.c' 'user disable bob' 'user enable bob'; do
    # shellcheck disable=SC2086   # words
    is 4 'tavrctl: must be run by root' as 64217 tavrctl $command
done
is 0 $'*privilege\tfailed\tconsole\tnot-root\t-' tavrctl audit
is 0 'Usage*' as 1000 bash -c 'tavrctl --help | grep Usage'
while read -r file; do
    [[ $file == *.lock ]] || owned tavr-web:tavr-web 600 "$file"
done < <(find /var/lib/tavr -type f)

# --- Faults ---
chmod 000 /var/lib/tavr/accounts.db
is 1 '*database: *' tavrctl user list
is 1 '*"err":"database"*' tavrctl user list --json
is 0 '*' tavrctl setup --help
chmod 600 /var/lib/tavr/accounts.db
rm /etc/tavr/otp.key
is 1 '*otp.key: is missing while there are secrets sealed with it*' tavrctl setup   # mails, passwords of mail accounts
rm -f /var/lib/tavr/mail.db* /usr/tavr/etc/preference/*/emailaccount.db
is 0 '*made /etc/tavr/otp.key' tavrctl setup
grep -v '^tavr-web:' /etc/passwd >/tmp/passwd && cp /tmp/passwd /etc/passwd
is 1 '*no user tavr-web*' tavrctl user list

[ $failures = 0 ] || { echo "$failures failures"; exit 1; }
