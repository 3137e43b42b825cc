#!/usr/bin/env bash
# Starts or stops an OpenSSH server for the sftp tests, everything under DIR:
#   sshd-fixture.sh start DIR   host and user keys, a config on 127.0.0.1 and a free high port,
#                               known_hosts, and DIR/env (SFTP_HOST, SFTP_PORT, SFTP_USER,
#                               SFTP_KEY, SFTP_KNOWN_HOSTS, SFTP_PIDFILE) for the tests
#   sshd-fixture.sh drop DIR    ends its sessions (their processes, children of the listener)
#                               and keeps it listening
#   sshd-fixture.sh stop DIR    ends that server (and its sessions) by the pid it recorded
set -euo pipefail
action=${1:?start or stop}
dir=${2:?folder}

# The sessions are children of the listener (a monitor each, with the session below it): found
# by parent pid, never by name.
drop() {
  [ -f "$dir/sshd.pid" ] || return 0
  local pid child grandchild
  pid=$(cat "$dir/sshd.pid")
  for child in $(ps -o pid= --ppid "$pid" 2>/dev/null); do
    for grandchild in $(ps -o pid= --ppid "$child" 2>/dev/null); do kill -9 "$grandchild" 2>/dev/null || true; done
    kill -9 "$child" 2>/dev/null || true
  done
}

stop() {
  [ -f "$dir/sshd.pid" ] || return 0
  local pid
  pid=$(cat "$dir/sshd.pid")
  drop
  kill "$pid" 2>/dev/null || true
  for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  rm -f "$dir/sshd.pid" "$dir/env"
}

start() {
  stop
  mkdir -p "$dir" /run/sshd
  dir=$(cd "$dir" && pwd)
  [ -f "$dir/host_key" ] || ssh-keygen -q -t ed25519 -N '' -f "$dir/host_key"
  [ -f "$dir/user_key" ] || ssh-keygen -q -t ed25519 -N '' -f "$dir/user_key"
  cp "$dir/user_key.pub" "$dir/authorized_keys"
  local port=""
  for _ in $(seq 40); do
    local candidate=$(( 20000 + RANDOM % 30000 ))
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$candidate") 2>/dev/null; then port=$candidate; break; fi
  done
  [ -n "$port" ] || { echo "no free port" >&2; exit 1; }
  cat > "$dir/sshd_config" <<CONFIG
Port $port
ListenAddress 127.0.0.1
HostKey $dir/host_key
PidFile $dir/sshd.pid
AuthorizedKeysFile $dir/authorized_keys
PasswordAuthentication no
KbdInteractiveAuthentication no
PubkeyAuthentication yes
UsePAM no
StrictModes no
PermitRootLogin prohibit-password
MaxStartups 100
MaxSessions 100
Subsystem sftp internal-sftp
CONFIG
  # In the foreground (-D) behind the shell's own '&': daemon() fails where the runner's /dev/null
  # cannot be opened as the tty-less daemon wants it. setsid keeps it out of the runner's group.
  setsid /usr/sbin/sshd -D -f "$dir/sshd_config" -E "$dir/sshd.log" </dev/null >/dev/null 2>&1 &
  for _ in $(seq 100); do
    [ -s "$dir/sshd.pid" ] && (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
    sleep 0.05
  done
  echo "[127.0.0.1]:$port $(cut -d' ' -f1,2 "$dir/host_key.pub")" > "$dir/known_hosts"
  cat > "$dir/env" <<ENV
SFTP_HOST=127.0.0.1
SFTP_PORT=$port
SFTP_USER=$(id -un)
SFTP_KEY=$dir/user_key
SFTP_KNOWN_HOSTS=$dir/known_hosts
SFTP_PIDFILE=$dir/sshd.pid
ENV
}

case "$action" in
  start) start ;;
  drop) drop ;;
  stop) stop ;;
  *) echo "usage: $0 start|drop|stop DIR" >&2; exit 2 ;;
esac
