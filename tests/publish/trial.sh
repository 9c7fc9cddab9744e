#!/bin/sh
# The kit in a bare Debian where nothing else is: installs the package, and publishes as a user who is not root.
# trial.sh FOLDER, which holds the .deb, a package for the test key, its version, and that key.
set -eu
folder=$1
apt-get install -y --no-install-recommends "$folder"/lumaris-publish_*.deb >/dev/null
work=$(mktemp -d)
cp "$folder"/halvoro.msi "$folder"/test.key "$folder"/test.pub "$folder"/version.txt "$work"
chown -R nobody "$work"
cat >"$work/steps" <<'END'
set -eu
cd "$1"
version=$(cat version.txt)
lumaris-publish --version
echo geslo >password
lumaris-publish keys new mine --password-file password >/dev/null
lumaris-publish init updates --host updates.tavrin.example --public-key test.pub --channels stable,beta
cd updates
if lumaris-publish stage ../halvoro.msi --key ../mine.key --password-file ../password 2>../refused; then exit 1; fi
grep -q 'REFUSED \[test-host\]' ../refused
lumaris-publish stage ../halvoro.msi --key ../test.key --accept 'a trial in a bare folder'
if lumaris-publish stage ../halvoro.msi --key ../test.key --expect 255.0.0; then exit 1; fi
lumaris-publish offer "$version" --channel beta --key ../test.key
lumaris-publish promote "$version" --from beta --to stable --key ../test.key
mkdir ../there
lumaris-publish push ../there
lumaris-publish keys drill --key ../test.key
lumaris-publish status
lumaris-publish log
python3 -m http.server --bind 127.0.0.1 --directory ../there 18099 >/dev/null 2>&1 &
server=$!
trap 'kill $server' EXIT
python3 - <<'WAIT'
import socket, time
for _ in range(200):
    if socket.socket().connect_ex(("127.0.0.1", 18099)) == 0:
        break
    time.sleep(0.05)
WAIT
lumaris-publish check --url http://127.0.0.1:18099/
END
setpriv --reuid=65534 --regid=65534 --clear-groups env HOME="$work" sh "$work/steps" "$work"
apt-get remove -y lumaris-publish >/dev/null
[ ! -e /usr/lib/lumaris-publish ] || { echo "left behind: $(find /usr/lib/lumaris-publish)"; exit 1; }
echo "trial: everything is as it must be, under $(. /etc/os-release; echo "$PRETTY_NAME"), $(python3 --version)"
