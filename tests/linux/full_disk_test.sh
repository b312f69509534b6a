#!/bin/bash
# Set-up on disks that take nothing more, at every step of it: it says where it stopped, nothing half written counts for the
# next one, and with room again that comes to its end. Upgrades of databases: upgrade_test.sh.
set -u
. "$(dirname "$0")/../support/checks.sh"
busybox syslogd -n -O /var/log/messages &
echo 'tavr-www:x:64218:' >>/etc/group
key=/etc/tavr/otp.key
picks=/usr/tavr/etc/tavr_otp_enforce_custom_setting

set_up() { tavrctl setup && tavrctl certificate install; }
whole() {   # settings, picks, key and certificate: whole, or not there
    local pair left
    [ ! -e /etc/tavr/tavrinfo.conf ] || is 0 $'# Settings *\nmaillang="enu"' cat /etc/tavr/tavrinfo.conf
    [ ! -e $picks ] || is 0 '{}' cat $picks
    [ ! -e $key ] || grep -qxE 'tavr-machine-key-1 [0-9a-f]{64}' $key || fail "half a key"
    for pair in /etc/tavr/self-signed.pem /run/tavr/www.pem; do
        [ ! -e $pair ] || [ "$(openssl x509 -noout -pubkey -in $pair)" = "$(openssl pkey -pubout -in $pair)" ] || fail "half a pair in $pair"
    done
    left=$(find /etc/tavr /usr/tavr /run/tavr -name '.*' 2>/dev/null)
    [ -z "$left" ] || fail "left behind: $left"
}

# sweep FOLDER UNIT LEAST: with one unit of space more each time, until set-up has enough; it is refused LEAST times or more
sweep() {
    local folder=$1 unit=$2 least=$3 n refused=0 status output before limit
    for ((n = 1; ; n += 1 + n / 3)); do
        [ $n -lt 300 ] || { fail "$folder, $unit: never enough"; return; }
        rm -rf /etc/tavr /etc/tavrinfo.conf /usr/tavr/* /var/lib/tavr /run/tavr
        mkdir -p "$folder" /usr/tavr
        [ "$unit" = pages ] && limit=size=$((4 * n))k || limit=nr_inodes=$n
        mount -t tmpfs -o "$limit,mode=755" small "$folder"
        output=$(set_up 2>&1)
        status=$?
        # (Picks that cannot be locked: the log says why.)
        [ $status = 0 ] || [[ $output =~ "$picks: cannot be used, see the log" || $output =~ tavrctl:\ $folder.*(No space left on device|database or disk is full|disk I/O error|unable to open database file) ]] ||
            fail "$folder, $n $unit: $output"
        whole
        before=$(cat $key 2>/dev/null)
        mount -o remount,size=16m,nr_inodes=1000 "$folder"
        output=$(set_up 2>&1) || fail "$folder, $n $unit, with room again: $output"
        [ -z "$before" ] || [ "$before" = "$(cat $key)" ] || fail "$folder, $n $unit: another key"
        umount "$folder"
        [ $status != 0 ] || break
        refused=$((refused + 1))
    done
    echo "$folder: refused $refused times for $unit"
    [ $refused -ge "$least" ] || fail "$folder, $unit: refused $refused times only"
}
sweep /etc/tavr pages 2
sweep /etc/tavr inodes 3
sweep /usr/tavr inodes 3
sweep /var/lib/tavr pages 8
sweep /var/lib/tavr inodes 5
sweep /run/tavr inodes 2
[ $failures = 0 ]
