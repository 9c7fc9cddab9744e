#!/bin/sh
# The report server in a bare Debian where nothing else is: installs the package, and runs it as its service does, as a user of its own behind
# nginx with the configuration that the package brings. trial.sh FOLDER, which holds the .deb and the two reports of a crash.
set -eu
folder=$1
host=reports.tavrin.example
if [ "${2:-}" != alone ]; then
    # The web server and the other programs are what an administrator has; the package must bring everything that it needs itself.
    apt-get install -y --no-install-recommends "$folder"/lumaris-reports_*.deb >/dev/null
    lumaris-reports --help >/dev/null
    read_report "$folder/short.bin" | grep -q 'short report'
    apt-get install -y --no-install-recommends apache2-utils curl iproute2 nginx-light openssl sqlite3 >/dev/null
    # What listens from here on is reached by nobody else.
    exec unshare --net sh "$0" "$folder" alone
fi
ip link set lo up
grep -q "$host" /etc/hosts || echo "127.0.0.1 $host" >>/etc/hosts

mkdir -p /etc/nginx/tls
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=$host" -addext "subjectAltName=DNS:$host" \
    -keyout /etc/nginx/tls/reports.key -out /etc/nginx/tls/reports.pem 2>/dev/null
cp /usr/share/doc/lumaris-reports/nginx.conf /etc/nginx/conf.d/lumaris-reports.conf
nginx -t
htpasswd -cbB /etc/lumaris-reports/passwords ana 'a password' 2>/dev/null
chmod 644 /etc/lumaris-reports/passwords

# What the service's unit does: the same options, a user of its own, one folder that it may write.
install -d -o nobody -m 750 /var/lib/lumaris-reports
OPTIONS=$(sed -n 's/^OPTIONS=//p' /etc/lumaris-reports/options)
# shellcheck disable=SC2086  # they are words
setpriv --reuid=65534 --regid=65534 --clear-groups --no-new-privs sh -c 'cd /var/lib/lumaris-reports && umask 0027 && exec /usr/bin/lumaris-reports serve "$@"' \
    sh $OPTIONS &
server=$!
nginx -g 'daemon off;' &
web=$!
trap 'kill $server $web 2>/dev/null || true' EXIT
ask() { curl --silent --show-error --cacert /etc/nginx/tls/reports.pem --retry 20 --retry-connrefused --retry-delay 1 "$@"; }

send() {
    ask --output /dev/null --write-out '%{http_code}\n' -H 'Transfer-Encoding: chunked' -H 'Content-Type: application/x-kestranez' \
        --data-binary "@$1" "https://$host/KestraneSprejem/sprejem/"
}
[ "$(send "$folder/short.bin")" = 449 ]
[ "$(send "$folder/full.bin")" = 200 ]
# Nothing comes out where reports go in, and nothing comes out of the pages without a password.
[ "$(ask --output /dev/null --write-out '%{http_code}' "https://$host/")" = 404 ]
[ "$(ask --output /dev/null --write-out '%{http_code}' -H 'X-Remote-User: ana' "https://$host:8443/")" = 401 ]
ask --user 'ana:a password' "https://$host:8443/" | grep -q 'halvoro.exe+0x1549'
ask "https://$host:8443/healthz" | grep -q '^ok$'

# Backup and restore, as the document has it.
cd /var/lib/lumaris-reports
sqlite3 reports.db ".backup copy.db"
kill "$server"
wait "$server"
rm reports.db reports.db-* 2>/dev/null || true
cp copy.db reports.db
chown nobody reports.db
lumaris-reports export --database reports.db | grep -q '"reports": 1,'

kill "$web"
wait "$web" || true
apt-get purge -y lumaris-reports >/dev/null
for left in /usr/bin/lumaris-reports /usr/bin/read_report /usr/lib/systemd/system/lumaris-reports.service /etc/lumaris-reports/options; do
    [ ! -e "$left" ] || { echo "left behind: $left"; exit 1; }
done
echo "trial: everything is as it must be, under $(. /etc/os-release; echo "$PRETTY_NAME")"
