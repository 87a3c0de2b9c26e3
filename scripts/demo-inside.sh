# The demo itself, run by scripts/demo inside the sandbox. The argument is the zebctl to use.
set -euo pipefail

# What follows replaces the accounts and the role map of the machine it runs on: that must be the sandbox.
if [ -z "${ZEBCS_SANDBOX:-}" ] || [ ! -w "${ZEBCS_SANDBOX_TMP:-/nonexistent}" ] || [ "$(uname -n)" != sandbox ]; then
  echo "This part of the demo runs in the sandbox only: start scripts/demo." >&2
  exit 1
fi

zebctl=$(realpath "$1")
samples=$(realpath samples)
rolemap=/opt/vorn/fleetops/etc/zebrolemap
properties=/opt/vorn/fleetops/etc/kelvestane/zeb/ini

bold='' plain=''
if [ -t 1 ]; then bold=$'\033[1m' plain=$'\033[0m'; fi
say() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }

# run STATUS ARGUMENTS...: shows one call of zebctl, which must end with this status.
run() {
  local expected=$1 status=0
  shift
  printf '$ zebctl %s\n' "$*"
  "$zebctl" "$@" 2>&1 || status=$?
  [ "$status" -eq 0 ] || printf '(exit status %s)\n' "$status"
  [ "$status" -eq "$expected" ] || { echo "The demo failed: exit status $expected was expected." >&2; exit 1; }
}

# login STATUS PASSWORD ARGUMENTS...: the same for a login, with the password as its standard input.
login() {
  local expected=$1 password=$2
  shift 2
  printf '%s\n' "$password" | run "$expected" login "$@"
}

cat >/etc/passwd <<'ACCOUNTS'
root:x:0:0:root:/root:/bin/bash
alice:x:1001:1001:Alice:/home/alice:/bin/bash
bob:x:1002:1002:Bob:/home/bob:/bin/bash
carol:x:1003:1003:Carol:/home/carol:/bin/bash
dave:x:1004:0:Dave, whose group is root:/home/dave:/bin/bash
ACCOUNTS
cat >/etc/group <<'GROUPS'
root:x:0:
alice:x:1001:
bob:x:1002:
carol:x:1003:
operators:x:2000:bob,carol
helpdesk:x:2001:carol
GROUPS
# The passwords are those that the logins below use.
cat >/etc/shadow <<'SHADOW'
root:*:19000:0:99999:7:::
alice:$6$alicedemo$HH4mQvd3fCY7HyYANvqVbP5kR0gGNAg6ov0KP2lmnBmnEkjU95j7/VuVSLsw3hVtcW.kp3vQQM4IKku6ufUoD0:19000:0:99999:7:::
bob:$6$bobdemo$thi.gjH4H7Nu6FpqUlhPdzxuecKkqSQXqSPiRaPMukHLZP7RxUmenUGaj/oREJSIB07pbgg2hUKOiv4YY/KDz.:19000:0:99999:7:::
carol:$6$caroldemo$x6mke/oAEfOiJxOspUyWnJ9IDq6BfCtAFx9o8qQXuJxEXv59Riu79Csd2voziNr2zeffBq0bIsE3avlmoZWy80:19000:0:99999:7::19500:
dave:!:19000:0:99999:7:::
SHADOW
chmod 0640 /etc/shadow
cp "$samples/pam-qxauth" /etc/pam.d/qxauth
mkdir -p "$properties"
cp "$samples/zeb.properties" "$properties/"

say "The accounts and groups of this machine, $(uname -n) in the domain $(cat /proc/sys/kernel/domainname)"
cut -d: -f1,3-5 /etc/passwd
cut -d: -f1,3- /etc/group

say "How the agent proves a password: its PAM service, which asks the shadow file. Carol's account expired long ago."
grep -v '^#' /etc/pam.d/qxauth
sed 's/:\$6\$\([a-z]*\)\$[^:]*/:(SHA-512 hash, salt \1)/' /etc/shadow

say "Its role map: who is what when coming from where. A + stands in front of a group, a * for anyone or anywhere."
cat >"$rolemap" <<'ROLEMAP'
# NAMES             HOSTS                    ROLE
root                *                        administrator

alice               console1,console2        administrator
alice               *                        user
+operators          *                        poweruser
+helpdesk           *.lab.example            administrator
*                   kiosk,*.sandbox.test     user
ROLEMAP
chmod 0640 "$rolemap"
cat "$rolemap"

say "What the library reads in it: each name on each host is a grant."
run 0 rolemap check

say "Alice logs in with her password. Without a domain her rights are those on this machine."
login 0 orange-kite-7 alice

say "From a console she is an administrator: the domain of a login is where the user comes from."
run 0 rights alice@console1
run 0 rights 'CONSOLE2\alice'

say "A wrong password is refused, and so is Carol, with the right one, as her account has expired, and Dave, who has none."
login 1 orange-kite-8 alice
login 1 copper-lamp-5 carol
login 1 anything dave

say "Why Bob is what he is: the line that decides."
login 0 quiet-harbour-3 bob
run 0 rolemap explain bob laptop

say "The same questions without a login. Alice's own rules decide, and case does not matter in hosts."
run 0 rolemap privilege alice Console1
run 0 rolemap privilege alice laptop

say "Bob has no rule of his own: his group operators makes him a power user anywhere."
run 0 rolemap privilege bob laptop

say "Carol is in two groups with rules. From the domain lab.example its own rule comes before the rule for any host."
run 0 rolemap privilege carol lab.example

say "A domain rule answers to the domain's own name: for a single host of it, only the rule for any host is left."
run 0 rolemap privilege carol pc7.lab.example

say "Nothing names Dave. He still is a user by the rule for anyone, as this machine itself is in sandbox.test."
run 0 rolemap privilege dave laptop

say "The operating system has its own opinion: 7 for user id 0, 3 for group id 0, as Dave's, and 1 for other accounts."
run 0 rolemap privilege root laptop

say "An account that does not exist has none of these, but the rule for anyone at a kiosk does not ask for accounts."
run 0 rolemap privilege mallory kiosk

say "The same as JSON, for scripts"
run 0 rolemap privilege bob laptop --json

say "A mistake in the file is named with its line ..."
echo "eve * operator" >>"$rolemap"
tail -n 1 "$rolemap"
run 1 rolemap check

say "... and the library's built-in default records stand in for the file until it is corrected: Bob is a mere user now."
login 0 quiet-harbour-3 bob

say "A new role map is better judged before it is put in place: every fault with its line, not only the first."
candidate=$ZEBCS_SANDBOX_TMP/zebrolemap
cat >"$candidate" <<'ROLEMAP'
alice      console1      administrator
alice      console1      user
+nosuchgroup  *          poweruser
bob        host1, host2  user
eve        *             operator
ROLEMAP
chmod 0640 "$candidate"
cat "$candidate"
run 1 rolemap check --file "$candidate"

say "A file that other accounts may read is refused too, until its permissions are 0640 again."
sed -i '$d' "$rolemap"
chmod 0644 "$rolemap"
run 1 rolemap check
chmod 0640 "$rolemap"
run 0 rolemap privilege bob laptop

say "What the agent's users did stands in the command log, with what the role map's readers found there."
run 0 log append 5301 "fan threshold set to 70 %" --user alice --source console
run 0 log show
run 0 log max
run 0 conf get --product zeb/ini/zeb.properties preferences.system.cmdlogmaxsize

say "Settings are in INI files. What is written into one has a type, and is checked before."
cd "$ZEBCS_SANDBOX_TMP"
run 0 ini set site.ini console title Fleet-Operations
run 0 ini set site.ini console timeout 900 --type u32
run 2 ini set site.ini console timeout soon --type u32
run 0 ini set site.ini wakeup address 0x00,0x16,0x3E,0xAB,0xCD,0xEF --type binary
cat site.ini
run 0 ini sections site.ini
run 0 ini get site.ini console title
run 0 ini get site.ini console timeout --type u32 --json

say "A key that is not there is named by the library's status, and scripts can ask for a default."
run 0 ini unset site.ini console timeout
run 1 ini unset site.ini console timeout
run 0 ini get site.ini console timeout --type u32 --default 600

say "Where the product's things are. One of its settings is changed here, in the file that the product keeps it in."
mkdir /opt/vorn/fleetops/var/lib/kelvestane/iws
run 0 ini set --product oem.ini data adschemaprefix acme
run 0 paths

say "That was the demo. All of it happened in a sandbox that is gone now: this machine is as it was."
