#!/usr/bin/env bash
# A unit of three slots on this machine, each with an actor that publishes network interfaces as objects. Every step says
# what the library does, and is checked: exit status 0 only if all of them showed what they should.
# Slot 1 shows the machine's own interfaces and changes none of them. Slots 2 and 3 live in network namespaces of their
# own, for which it takes root or user namespaces; without them the steps that change interfaces are left out.
# With --stay the unit is left running until Enter is pressed, to be played with.
set -uo pipefail

programs=${1:?usage: demo.sh DIRECTORY-OF-THE-PROGRAMS [--stay]}
patience=${CHASSIS_DEMO_PATIENCE:-10} # seconds for what takes milliseconds

# --- where network namespaces come from -----------------------------------------------------------------------------

namespaces=yes
if ! command -v ip >/dev/null; then
  namespaces="the program 'ip' of iproute2 is missing"
elif ! unshare --net true 2>/dev/null; then
  if [ -z "${CHASSIS_DEMO_INSIDE:-}" ] && unshare --user --map-root-user unshare --net true 2>/dev/null; then
    # The one who made the user namespace is root in it, and in all network namespaces that are made there.
    CHASSIS_DEMO_INSIDE=1 exec unshare --user --map-root-user -- "$0" "$@"
  fi
  namespaces="this machine allows no network namespaces here"
fi

# --- actors and what they say ---------------------------------------------------------------------------------------

directory=$(mktemp -d "${TMPDIR:-/tmp}/chassis-XXXXXX") || exit 1
declare -A pid output
step=start

cleanup() {
  trap - EXIT INT TERM
  local name
  for name in "${!pid[@]}"; do
    kill -KILL "${pid[$name]}" 2>/dev/null
    wait "${pid[$name]}" 2>/dev/null
  done
  rm -rf "$directory"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
  echo "FAILED at \"$step\": $*" >&2
  tail -n 20 "$directory"/*.err "$directory/log" >&2 2>/dev/null
  exit 1
}

say() {
  step=$1
  printf '\n* %s\n' "$1"
}

mkdir -p "$directory/root/ffs/run/logs"
echo 10 >"$directory/root/ffs/run/logs/orbWaitDuration" # the minutes a call may take: brokers look for this file
export REFLECTORB_UNIT_DIR="$directory/unit" REFLECTORB_ROOT="$directory/root" REFLECTORB_LOG="file:$directory/log"

# start NAME COMMAND...: in the background; its lines can be expected.
start() {
  local name=$1 fd
  shift
  rm -f "$directory/$name.out"
  mkfifo "$directory/$name.out"
  setpriv --pdeathsig KILL "$@" >"$directory/$name.out" 2>>"$directory/$name.err" & # nothing outlives this script
  pid[$name]=$!
  exec {fd}<"$directory/$name.out"
  output[$name]=$fd
}

# expect NAME PATTERN...: reads what it says until each pattern was in a line, in whatever order, and shows these lines.
expect() {
  local name=$1 line pattern missing limit=$((SECONDS + patience))
  shift
  while [ $# -gt 0 ]; do
    if [ $SECONDS -ge $limit ] || ! IFS= read -r -t $((limit - SECONDS)) line <&"${output[$name]}"; then
      fail "$name did not say: $*"
    fi
    missing=()
    for pattern in "$@"; do
      if [[ $line =~ $pattern ]]; then
        printf '    %-8s %s\n' "$name" "$line"
        line=
      else
        missing+=("$pattern")
      fi
    done
    set -- "${missing[@]}"
  done
}

# listing NAME PATTERN: shows all that it says up to a line with the pattern, and keeps it.
listing() {
  local line
  said=
  while IFS= read -r -t $patience line <&"${output[$1]}"; do
    printf '    %-8s %s\n' "$1" "$line"
    said+=$line$'\n'
    [[ ! $line =~ $2 ]] || return 0
  done
  fail "$1 did not say: $2"
}

# both PATTERN...: the manager and the client that watches are told of the same, each by the slots themselves.
both() {
  expect manager "$@"
  expect watch "$@"
}

# run STATUS ARGUMENTS...: portctl, which must end so; its output is shown and kept in $said.
run() {
  local expected=$1 status
  shift
  printf '    $ portctl %s\n' "$*"
  said=$(timeout "$patience" "$programs/portctl" "$@" 2>&1)
  status=$?
  printf '%s\n' "$said" | sed 's/^/    /'
  [ $status -eq "$expected" ] || fail "portctl $* ended with $status, not $expected"
}

# shows PATTERN...: of what was shown last, a line each.
shows() {
  local pattern
  for pattern in "$@"; do
    grep -qE -- "$pattern" <<<"$said" || fail "not shown: $pattern"
  done
}

hides() {
  ! grep -qE -- "$1" <<<"$said" || fail "still shown: $1"
}

# end NAME: tells it to end, which it must do cleanly, and soon.
end() {
  local limit=$((SECONDS + patience))
  kill -TERM "${pid[$1]}"
  while kill -0 "${pid[$1]}" 2>/dev/null; do
    [ $SECONDS -lt $limit ] || fail "$1 did not end"
    sleep 0.05
  done
  wait "${pid[$1]}" || fail "$1 ended with $?"
  unset "pid[$1]"
}

# --- network namespaces ---------------------------------------------------------------------------------------------

# room SLOT: a process that keeps a namespace, also while the slot's actor is not there.
room() {
  start "room$1" unshare --net sh -c 'echo here; exec sleep infinity'
  IFS= read -r -t $patience _ <&"${output[room$1]}" || fail "no network namespace for slot $1"
}

# agent SLOT: starts the slot's actor, in its namespace if it has one.
agent() {
  local inside=()
  if [ -n "${pid[room$1]:-}" ]; then
    inside=(nsenter "--net=/proc/${pid[room$1]}/ns/net")
  fi
  start "slot$1" "${inside[@]}" "$programs/port_agent" --slot "$1"
}

inRoom() {
  nsenter "--net=/proc/${pid[room$1]}/ns/net" "${@:2}" || fail "${*:2}"
}

if [ "$namespaces" = yes ]; then
  room 2
  room 3
fi

# interfaces: those that the kernel has here, a name a line, in order.
interfaces() {
  tail -n +3 /proc/net/dev | sed 's/:.*//; s/ //g' | sort
}

# --- the steps ------------------------------------------------------------------------------------------------------

echo "A chassis of three slots. Each actor is a process with a broker; the brokers find each other, there is no daemon."
if [ "$namespaces" != yes ]; then
  echo "SKIPPED: $namespaces, so all slots show this machine's interfaces, and none is added or changed."
fi

say "The manager starts in slot 1. It makes the object /chassis, and subscribes to ports and brokers of the whole unit."
start manager "$programs/chassis_manager" --slot 1
expect manager "manager of /chassis ready"

say "An agent starts in each slot. Each makes an object of class Port for every interface that the kernel has there."
before=$(interfaces)
for slot in 1 2 3; do
  agent $slot
  expect manager "slot $slot  actor port_agent .* is there" "slot $slot  port lo "
  expect "slot$slot" "part of /chassis"
done

say "A client looks at the tree: the slots register at /chassis, and each value is read in the actor that has the port."
run 0 tree
while read -r interface; do # others may come and go meanwhile
  grep -qF -- "/chassis/slot1/$interface " <<<"$said" || fail "the kernel's $interface is not shown"
done < <(comm -12 <(echo "$before") <(interfaces))
shows "^/chassis/slot2/lo " "^/chassis/slot3/lo " "ports in 3 slots"

say "What a port is like the client learns at run time, from the meta object of its class: nothing is compiled in."
run 0 show slot2/lo
shows "class Port " "^name +string +lo$" "^rxBytes +Counter64 +[0-9]+$" "^operation setMtu\(unsigned long mtu\)$"

say "A second client watches. It asks the brokers once; from then on the slots tell it, as they tell the manager."
start watch "$programs/portctl" watch
expect watch "watching /chassis" "slot 3  port lo (found|created)"

if [ "$namespaces" = yes ]; then
  say "A cable is laid from slot 2 to slot 3. The kernel tells the agents, creation events tell everybody else."
  inRoom 2 ip link add veth2 type veth peer name veth3 netns "/proc/${pid[room3]}/ns/net"
  both "slot 2  port veth2 created: down, mtu 1500" "slot 3  port veth3 created: down, mtu 1500"

  say "A remote call sets an MTU. Observers of the operation stateChanged hear of it, in every actor that has some."
  run 0 set slot2/veth2 mtu 1400
  shows "^/chassis/slot2/veth2: down, mtu 1400$"
  both "slot 2  port veth2 changed: mtu 1500 -> 1400"

  say "The kernel refuses another one: its own words travel back as a user exception of the interface."
  run 1 set /chassis/slot2/veth2 mtu 50
  shows "refused by the kernel: .*[a-z]"

  say "Both ends are switched on, then one off: the other, in another slot, tells that its carrier is gone."
  run 0 set slot2/veth2 up
  both "slot 2  port veth2 changed: .*admin down -> up"
  run 0 set slot3/veth3 up
  both "slot 2  port veth2 changed: oper [a-z]+ -> up" "slot 3  port veth3 changed: .*oper [a-z]+ -> up"
  run 0 set slot3/veth3 down
  both "slot 3  port veth3 changed: .*admin up -> down" "slot 2  port veth2 changed: oper up -> [a-z]+"
fi

say "All counters of a port come with one call; here of all ports there are, each from its own actor."
run 0 counters /chassis
shows "^/chassis/slot1/lo +[0-9]+ +[0-9]+" "^/chassis/slot2/lo " "^/chassis/slot3/lo "

say "The agent of slot 2 is killed with SIGKILL. The kernel closes its sockets, so all others know at once."
kill -KILL "${pid[slot2]}"
wait "${pid[slot2]}" 2>/dev/null
unset "pid[slot2]"
both "slot 2  actor port_agent .* is gone, and with it [0-9]+ ports?: "
run 0 tree
hides "slot2"
shows "ports in 2 slots"

say "What is not there any more is said so, with what there is."
run 3 show slot2/lo
shows "no slot 'slot2' in /chassis; nearest: slot"

say "The agent is started again. Its ports come back by the subscriptions that are there: the picture heals."
agent 2
both "slot 2  actor port_agent .* is there" "slot 2  port lo created"
if [ "$namespaces" = yes ]; then
  both "slot 2  port veth2 created: .*, mtu 1400"
fi
expect slot2 "part of /chassis"
run 0 tree
shows "^/chassis/slot2/lo " "ports in 3 slots"

if [ "$namespaces" = yes ]; then
  say "The cable is taken away: deletion events, again to everybody."
  inRoom 2 ip link del veth2
  both "slot 2  port veth2 deleted" "slot 3  port veth3 deleted"
fi

say "The manager prints its own picture, which it has from events alone."
kill -USR1 "${pid[manager]}"
listing manager "ports in 3 slots"
shows "^ +1  lo " "^ +2  lo " "^ +3  lo "
hides veth

end watch
if [ "${2:-}" = --stay ]; then
  say "The unit stays until you press Enter. What the manager tells is shown here; from another terminal, look and change:"
  echo "    export REFLECTORB_UNIT_DIR=$REFLECTORB_UNIT_DIR REFLECTORB_ROOT=$REFLECTORB_ROOT"
  echo "    $(realpath "$programs")/portctl --help"
  sed -u 's/^/    manager  /' <&"${output[manager]}" &
  read -r _
fi

say "All end by SIGTERM, and leave nothing behind."
for name in slot1 slot2 slot3 manager; do
  end $name
done
left=$(find "$REFLECTORB_UNIT_DIR" -type s)
[ -z "$left" ] || fail "sockets left behind: $left"
echo
echo "Every step showed what it should."
