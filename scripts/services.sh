#!/usr/bin/env bash
# Start and stop the services that tests need, on loopback only. Sourced by
# test.sh and demo.sh. Each service records its PID under $ZT_SERVICES_DIR so
# that services_stop ends exactly what services_start began.

ZT_SERVICES_DIR=${ZT_SERVICES_DIR:-$(mktemp -d /tmp/zt-services.XXXXXX)}
export ZT_SERVICES_DIR

services_start() {
  # The library's current tests need no external service.
  :
}

services_stop() {
  local pidfile
  for pidfile in "$ZT_SERVICES_DIR"/*.pid; do
    [ -e "$pidfile" ] || continue
    kill "$(cat "$pidfile")" 2>/dev/null || true
    rm -f "$pidfile"
  done
}
