#!/bin/bash
# The stop command of a throw-away nginx. It notes which services still run, and ends once a file
# beside the journal lets it go.

runs() { # runs SERVICE: whether the one that started last is there and no zombie
    local pid
    pid=$(grep "^$1 started" "${journal:?}" | tail -n1 | cut -d' ' -f3)
    [ -e "/proc/$pid" ] && ! grep -q '^State:.Z' "/proc/$pid/status" 2>/dev/null
}

for _ in {1..50}; do runs rpc || break; sleep 0.1; done # a killed process may take its time to go
runs rpc && rpc=runs || rpc=ended
runs nginx && nginx=runs || nginx=ended
echo "nginx asked to stop: rpc $rpc, nginx $nginx" >>"$journal"
until [ -e "$journal.go" ]; do sleep 0.05; done
echo 'done' >>"$journal"
