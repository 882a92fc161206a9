#!/usr/bin/env bash
# A thread that is cancelled inside one of these functions runs no destructors on 32-bit ARM, so the library does not
# use them: imports.sh NM LIBRARY
set -euo pipefail
unsafe='epoll_wait|epoll_pwait|wait3|wait4|openat|openat64|eventfd_read|getrandom|thrd_sleep|fflush|fputs|puts|printf'
# Used, but only where cancellation is disabled: accept4 (receiving thread), pthread_join (Thread::join), fprintf and
# what else the log's formatter brings along (the log disables it).
imports=$("$1" -D --undefined-only "$2" | awk '{print $NF}' | sed 's/@.*//')
[ "$(wc -l <<<"$imports")" -gt 50 ] || { echo "no imports found in $2" >&2; exit 1; }
found=$(grep -xE "$unsafe" <<<"$imports" || true)
if [ -n "$found" ]; then
  printf 'imported, but not safe to be cancelled in:\n%s\n' "$found" >&2
  exit 1
fi
