#!/bin/bash
# The web server's certificate: which one is named, what is refused, what lies where the web server reads it.
set -u
. "$(dirname "$0")/../support/checks.sh"
pair() {   # NAME [OPTION...]
    local name=$1
    shift
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 -subj "/CN=$name" \
        -addext "subjectAltName=DNS:$name.example,IP:192.0.2.1" -keyout "/root/$name.key" -out "/root/$name.pem" "$@" 2>/dev/null ||
        fail "no pair $name"
}
served_subject() { openssl x509 -noout -subject -in /run/tavr/www.pem; }
fits() { [ "$(openssl x509 -noout -pubkey -in "$1")" = "$(openssl pkey -pubout -in "$1")" ] || fail "$1: key and certificate do not fit"; }

tavrctl setup >/dev/null
is 1 '*no group tavr-www*' tavrctl certificate install
echo 'tavr-www:x:64218:' >>/etc/group
is 1 '*self-signed.pem: No such file*' tavrctl certificate show

# --- Self-signed ---
is 0 $'made a self-signed certificate for *\nself-signed\t/etc/tavr/self-signed.pem\t*localhost,127.0.0.1,::1\t20??-*Z' tavrctl certificate install
is 0 'root:root 400' stat -c '%U:%G %a' /etc/tavr/self-signed.pem
is 0 'root:tavr-www 440' stat -c '%U:%G %a' /run/tavr/www.pem
is 0 'root:root 644' stat -c '%U:%G %a' /run/tavr/www.conf
is 0 '' cat /run/tavr/www.conf
fits /run/tavr/www.pem
before=$(sha256sum </etc/tavr/self-signed.pem)
is 0 $'self-signed\t*' tavrctl certificate install
[ "$before" = "$(sha256sum </etc/tavr/self-signed.pem)" ] || fail "a good one was replaced"
echo broken >/etc/tavr/self-signed.pem
is 0 'made a self-signed certificate*' tavrctl certificate install
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 20 -subj /CN=soon -keyout /root/soon.key -out /root/soon.pem 2>/dev/null
cat /root/soon.key /root/soon.pem >/etc/tavr/self-signed.pem
is 0 'made a self-signed certificate*' tavrctl certificate install   # within 30 days of its end

# --- Her own ---
pair one
pair two
is 0 $'own\t/root/one.pem\tone.example,192.0.2.1\t20*Z' tavrctl certificate use /root/one.pem /root/one.key
is 0 '*tls_certificate="/root/one.pem"*tls_key="/root/one.key"*' cat /etc/tavrinfo.conf
is 0 '{"certificate":{"certificate":"/root/one.pem","from":*,"issuer":"CN=one","key":"/root/one.key","names":\["one.example","192.0.2.1"\],"own":true,"subject":"CN=one","until":*},"success":true}' \
    tavrctl --json certificate show
is 0 $'own\t*' tavrctl certificate install
is 0 'subject=CN = one' served_subject
is 0 '*Strict-Transport-Security*max-age=31536000*' cat /run/tavr/www.conf
fits /run/tavr/www.pem

# A chain is served whole, and nothing else that stands in the files.
{ echo 'some text'; cat /root/one.pem /root/two.pem; } >/root/chain.pem
is 0 $'own\t*' tavrctl certificate use /root/chain.pem /root/one.key
is 0 $'own\t*' tavrctl certificate install
is 0 2 grep -c 'BEGIN CERTIFICATE' /run/tavr/www.pem
is 1 '' grep 'some text' /run/tavr/www.pem

# --- What is refused, and changes nothing ---
kept=$(sha256sum </etc/tavr/tavrinfo.conf)
served=$(sha256sum </run/tavr/www.pem)
openssl pkey -in /root/one.key -aes256 -passout pass:x -out /root/locked.key
mkdir /root/folder
head -c 2000000 /dev/zero >/root/large.pem
sed '3s/./!/' /root/one.pem >/root/damaged.pem
cat /root/one.pem /root/damaged.pem >/root/half.pem
openssl req -x509 -key /root/one.key -subj /CN=old -days -1 -out /root/old.pem 2>/dev/null ||
    openssl x509 -in /root/one.pem -signkey /root/one.key -days -1 -out /root/old.pem 2>/dev/null
is 1 '*/root/two.key is not that of the first certificate in /root/one.pem*' tavrctl certificate use /root/one.pem /root/two.key
is 1 '*/root/none.pem: No such file*' tavrctl certificate use /root/none.pem /root/one.key
is 1 '*/root/none.key: No such file*' tavrctl certificate use /root/one.pem /root/none.key
is 1 '*/root/one.key holds no certificate*' tavrctl certificate use /root/one.key /root/one.key
is 1 '*/root/one.pem holds no private key*' tavrctl certificate use /root/one.pem /root/one.pem
is 1 '*/root/locked.key needs a passphrase*' tavrctl certificate use /root/one.pem /root/locked.key
is 1 '*/root/folder cannot be read*' tavrctl certificate use /root/folder /root/one.key
is 1 '*/root/large.pem cannot be read*' tavrctl certificate use /root/large.pem /root/one.key
is 1 '*/root/damaged.pem holds*' tavrctl certificate use /root/damaged.pem /root/one.key
is 1 '*/root/half.pem holds a certificate that cannot be read*' tavrctl certificate use /root/half.pem /root/one.key
is 1 '*/root/old.pem has expired*' tavrctl certificate use /root/old.pem /root/one.key
is 2 '*whole paths*' tavrctl certificate use one.pem one.key
is 4 '*' setpriv --reuid=64217 --regid=64217 --clear-groups tavrctl certificate install
[ "$kept" = "$(sha256sum </etc/tavr/tavrinfo.conf)" ] || fail "the settings were changed"
cp /root/two.key /root/one.key
is 1 '*is not that of*' tavrctl certificate install
echo 'tls_key=""' >>/etc/tavr/tavrinfo.conf
is 1 '*have to name a file each*' tavrctl certificate install
[ "$served" = "$(sha256sum </run/tavr/www.pem)" ] || fail "what is served was changed"

is 0 '*self-signed*' tavrctl certificate self-signed
is 0 $'self-signed\t*' tavrctl certificate install
is 0 '' cat /run/tavr/www.conf
[ $failures = 0 ]
