# For shell scripts that need an etcd cluster: source this file. etcd_cluster.py has the commands.

# etcd_launch OPTION...: runs the launcher until etcd_end, or until this script ends for whatever reason.
etcd_launch() {
  coproc ETCD { exec python3 "$(dirname "${BASH_SOURCE[0]}")/etcd_cluster.py" "$@"; }
  etcd_launcher=$ETCD_PID
}

# etcd_ask COMMAND...: sets `answer`. Not in a subshell: bash closes the launcher's pipes there.
etcd_ask() {
  local result
  echo "$@" >&"${ETCD[1]}"
  read -r result answer <&"${ETCD[0]}"
  [ "$result" = ok ] || { echo "etcd cluster: $*: $answer" >&2; return 1; }
}

# Stops the members, removes their data and waits for both.
etcd_end() {
  [ -n "${etcd_launcher-}" ] || return 0
  [ -z "${ETCD[1]-}" ] || eval "exec ${ETCD[1]}>&-"
  wait "$etcd_launcher" || true
  etcd_launcher=
}
