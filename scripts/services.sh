#!/usr/bin/env bash
# Start and stop the services that tests need, on loopback only. Sourced by
# test.sh and demo.sh. Each service records its PID under $ZT_SERVICES_DIR so
# that services_stop ends exactly what services_start began.

ZT_SERVICES_DIR=${ZT_SERVICES_DIR:-$(mktemp -d /tmp/zt-services.XXXXXX)}
export ZT_SERVICES_DIR

source "$(dirname "${BASH_SOURCE[0]}")/services_sasl.sh"

services_start() {
  sasl_services_start
}

services_stop() {
  local pidfile
  for pidfile in "$ZT_SERVICES_DIR"/*.pid; do
    [ -e "$pidfile" ] || continue
    kill "$(cat "$pidfile")" 2>/dev/null || true
    rm -f "$pidfile"
  done
}
