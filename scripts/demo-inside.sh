# The demo itself, run by scripts/demo inside the sandbox. The argument is the zebctl to use.
set -euo pipefail
zebctl=$1
rolemap=/opt/vorn/fleetops/etc/zebrolemap

bold='' plain=''
if [ -t 1 ]; then bold=$'\033[1m' plain=$'\033[0m'; fi
say() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }
run() {
  printf '$ zebctl %s\n' "$*"
  "$zebctl" "$@" || printf '(exit status %s)\n' $?
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

say "The role map of this machine"
cat >"$rolemap" <<'ROLEMAP'
# NAMES             HOSTS                    ROLE
root                *                        administrator
alice               console1,console2        administrator
alice               *                        user
+operators          *                        poweruser
+helpdesk           *.lab.example            administrator
*                   kiosk                    user
ROLEMAP
chmod 0640 "$rolemap"
cat "$rolemap"

say "What the library reads in it"
run rolemap check

say "Alice is an administrator at a console and a user elsewhere: her own rules decide."
run rolemap privilege alice Console1
run rolemap privilege alice laptop

say "Bob has no rule of his own: his group operators makes him a power user."
run rolemap privilege bob laptop

say "Carol is in two groups. The domain rule matches, and the strongest of her groups counts."
run rolemap privilege carol lab.example

say "Nothing names Dave or his group: at the kiosk anyone is a user, elsewhere he has no privilege in the role map."
run rolemap privilege dave kiosk
run rolemap privilege dave laptop

say "The same for a script"
run rolemap privilege bob laptop --json

say "A mistake in the file is named with its line, and the built-in records stand in for the file."
echo "eve * operator" >>"$rolemap"
run rolemap check
run rolemap privilege bob laptop

say "So is a file that others could read or change."
sed -i '$d' "$rolemap"
chmod 0644 "$rolemap"
run rolemap check
