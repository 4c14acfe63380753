#!/usr/bin/env bash
# A private PostgreSQL server for tests and benchmarks, in one directory, reached only through
# the Unix socket in that directory.
#   pg-test-server.sh start DIR [-c name=value ...]   initdb (once) and start; prints the URI
#   pg-test-server.sh fresh DIR [-c ...]              stop and remove what DIR held, then start
#   pg-test-server.sh halt DIR | kill DIR             stop fast | as in a crash, keeping the data
#   pg-test-server.sh stop DIR                        stop (fast, else immediate) and remove DIR
#   pg-test-server.sh uri DIR                         the URI of the server in DIR
# Run as root, the server runs as the unprivileged user `postgres` (initdb refuses root).
set -euo pipefail

command=${1:-}
dir=${2:-}
if [ -z "$command" ] || [ -z "$dir" ]; then
  echo "usage: $0 start|stop|uri DIR [-c name=value ...]" >&2
  exit 2
fi
shift 2

bindir=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -1)
if [ -z "$bindir" ] || [ ! -x "$bindir/pg_ctl" ]; then
  echo "pg-test-server: no PostgreSQL server installed (apt-get install postgresql)" >&2
  exit 1
fi

owner=$(id -un)
as_owner=()
if [ "$(id -u)" -eq 0 ]; then
  owner=postgres
  as_owner=(runuser -u postgres --)
fi

# The socket lives in a short directory of its own: a socket path is limited to about 100
# characters, which a build directory deep in a checkout may exceed.
socket_dir() {
  echo "/tmp/qvpg-$(printf '%s' "$1" | md5sum | cut -c1-12)"
}

uri() {
  echo "postgresql:///postgres?host=$(socket_dir "$1")&user=$owner"
}

halt() {
  if [ -f "$1/data/postmaster.pid" ]; then
    "${as_owner[@]}" "$bindir/pg_ctl" -D "$1/data" -m "$2" -w -t 30 stop >/dev/null 2>&1 ||
      "${as_owner[@]}" "$bindir/pg_ctl" -D "$1/data" -m immediate -w -t 30 stop >/dev/null 2>&1 || true
  fi
}

if [ "$command" = fresh ]; then
  halt "$dir" fast
  rm -rf "$dir"
  command=start
fi

case "$command" in
  start)
    mkdir -p "$dir"
    dir=$(cd "$dir" && pwd)
    if [ "$(id -u)" -eq 0 ]; then
      chown postgres "$dir"
      # Every directory above must be traversable for the server's user.
      d=$dir
      while [ "$d" != "/" ]; do
        d=$(dirname "$d")
        chmod o+x "$d" 2>/dev/null || true
      done
    fi
    if [ ! -f "$dir/data/PG_VERSION" ]; then
      "${as_owner[@]}" "$bindir/initdb" -D "$dir/data" -A trust -E UTF8 --locale=C >"$dir/initdb.log" 2>&1 ||
        { cat "$dir/initdb.log" >&2; exit 1; }
    fi
    sockets=$(socket_dir "$dir")
    mkdir -p "$sockets"
    if [ "$(id -u)" -eq 0 ]; then
      chown postgres "$sockets"
    fi
    settings="-k $sockets -c listen_addresses='' -c max_connections=300"
    for arg in "$@"; do
      settings+=" $arg"
    done
    if ! "${as_owner[@]}" "$bindir/pg_ctl" -D "$dir/data" -o "$settings" -l "$dir/server.log" -w -t 60 start >/dev/null; then
      tail -20 "$dir/server.log" >&2 || true
      exit 1
    fi
    uri "$dir"
    ;;
  stop)
    halt "$dir" fast
    rm -rf "$dir" "$(socket_dir "$(cd "$dir" 2>/dev/null && pwd || echo "$dir")")"
    ;;
  halt)
    halt "$dir" fast
    ;;
  kill)
    halt "$dir" immediate
    ;;
  uri)
    uri "$(cd "$dir" && pwd)"
    ;;
  *)
    echo "usage: $0 start|fresh|halt|kill|stop|uri DIR" >&2
    exit 2
    ;;
esac
