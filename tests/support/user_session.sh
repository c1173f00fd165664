#!/bin/sh
# user_session.sh FOLDER COMMAND...: runs a command in a user's session with a real bus and a real
# service manager, cut off from those of the machine: mounts, processes and control groups of its
# own, which all end with the command. Needs root. Ends with 77 where that is not permitted.
folder=$1
shift
if [ "$VELUM_SESSION" != inner ]; then
  unshare --mount --pid --fork true 2>/dev/null || exit 77
  VELUM_SESSION=inner exec unshare --mount --propagation private --pid --fork --kill-child \
    --mount-proc "$0" "$folder" "$@"
fi
unset VELUM_SESSION

# The manager wants the unified hierarchy, and to be where a login session would put it.
umount -l /sys/fs/cgroup 2>/dev/null
mount -t cgroup2 none /sys/fs/cgroup || exit 77
group=/sys/fs/cgroup/velum-test-$(cat /proc/sys/kernel/random/uuid)/user@$(id -u).service
mkdir -p "$group/init.scope" "$group/test.scope" || exit 77
mount -t tmpfs none /run || exit 77
mkdir -p /run/systemd/system "$folder/run" && chmod 700 "$folder/run"
export XDG_RUNTIME_DIR="$folder/run"
unset DBUS_SESSION_BUS_ADDRESS

wait_for() {
  i=0
  until "$@" >/dev/null 2>&1; do
    i=$((i + 1)) && [ $i -lt 300 ] || exit 77
    sleep 0.1
  done
}
(echo 0 >"$group/init.scope/cgroup.procs" &&
  exec /lib/systemd/systemd --user --log-target=console --unit=basic.target) \
  </dev/null >"$folder/manager.txt" 2>&1 &
wait_for test -S "$XDG_RUNTIME_DIR/systemd/private"
# The manager serves on the bus that it started itself.
wait_for systemctl --user start dbus.service
wait_for busctl --user --auto-start=no status org.freedesktop.systemd1

echo 0 >"$group/test.scope/cgroup.procs"
"$@"
status=$?
# As the first process of this namespace, this shell alone survives.
echo 0 >/sys/fs/cgroup/cgroup.procs
kill -KILL -1
remove_group() {
  find "${group%/*}" -depth -type d -exec rmdir {} + 2>/dev/null
  ! test -d "${group%/*}"
}
(wait_for remove_group) # whose failure is not the command's
exit $status
