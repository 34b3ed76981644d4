#!/usr/bin/env bash
# Runs the LAVA test definition (lava/) through Debian's own LAVA dispatcher, with this machine as
# the device under test: a private sshd on 127.0.0.1 plays an SSH-reachable board, lava-run deploys
# to it, boots it and runs the definition three times (the whole plan; the plan against a vault
# that makes one command fail; a repeated selection), and LAVA's own results are checked against
# what zel-tc says the plan is.
#
# Exit 3: lava-dispatcher or sshd could not be installed, or the machine cannot host the device;
# the caller decides what that means. Needs the build in build-ci/ (scripts/test.sh makes it).
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
zel_tc="$repo/build-ci/bin/zel-tc"
# A command that only one plan step sends (zel_getSlotInfo), so that exactly that step must fail.
injected_cmd=45
injected_case="zel_getSlotInfo.data1.index3"

say() { echo "lava-proof: $*" >&2; }

[ -x "$zel_tc" ] || { say "no $zel_tc: build first (bash scripts/test.sh)"; exit 1; }
if [ "$(id -u)" -ne 0 ]; then
  # LAVA unpacks its test overlay at the device's root directory and logs in over ssh as root.
  say "needs root to play the device (LAVA writes its overlay to /)"
  exit 3
fi

missing=()
command -v lava-run > /dev/null || missing+=(lava-dispatcher)
[ -x /usr/sbin/sshd ] || missing+=(openssh-server)
if [ ${#missing[@]} -gt 0 ]; then
  say "installing ${missing[*]}"
  # An index of one architecture failing to download must not stop the install.
  apt-get update || say "apt-get update reported errors; going on"
  # The device is this machine: the package's own sshd must not start on port 22. Debian's
  # policy-rc.d hook (exit 101: no service starts) holds it back for the install alone.
  policy=""
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    policy=/usr/sbin/policy-rc.d
    printf '#!/bin/sh\nexit 101\n' > "$policy" && chmod 755 "$policy"
  fi
  install_status=0
  DEBIAN_FRONTEND=noninteractive apt-get install -y -o DPkg::Lock::Timeout=600 \
    --no-install-recommends "${missing[@]}" ||
    install_status=$?
  [ -n "$policy" ] && rm -f "$policy"
  if [ "$install_status" -ne 0 ]; then
    say "cannot install ${missing[*]}"
    exit 3
  fi
fi
# Debian's python3 reads LAVA's log: it is lava-dispatcher's own interpreter, with PyYAML.
python=/usr/bin/python3

work=$(mktemp -d /tmp/lava-proof.XXXXXX)
job_id=$$
sshd_pid=""
made_privsep=false
cleanup() {
  [ -n "$sshd_pid" ] && kill "$sshd_pid" 2> /dev/null || true
  [ -S "$work/vault/socket" ] && "$zel_tc" vault stop --socket "$work/vault/socket" > /dev/null 2>&1 || true
  # What LAVA left on the "device": its overlay and test directory.
  rm -rf "/lava-$job_id" "/lava-$job_id-overlay"*.tar.gz
  $made_privsep && rmdir /run/sshd 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# sshd for this run only: its own host key, one client key, its own configuration; nothing of the
# machine's ssh configuration is read or changed.
ssh-keygen -q -t ed25519 -N '' -C lava-proof-host -f "$work/host_key"
ssh-keygen -q -t ed25519 -N '' -C lava-proof-client -f "$work/client_key"
cp "$work/client_key.pub" "$work/authorized_keys"
port=$($python -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat > "$work/sshd_config" << CONFIG
ListenAddress 127.0.0.1
Port $port
HostKey $work/host_key
AuthorizedKeysFile $work/authorized_keys
PidFile $work/sshd.pid
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin prohibit-password
UsePAM no
StrictModes no
Subsystem sftp /usr/lib/openssh/sftp-server
CONFIG
# sshd's privilege-separation directory; a machine that never ran sshd has none.
[ -d /run/sshd ] || { mkdir -p /run/sshd && chmod 755 /run/sshd && made_privsep=true; }
/usr/sbin/sshd -f "$work/sshd_config" -E "$work/sshd.log"
for _ in $(seq 50); do [ -s "$work/sshd.pid" ] && break; sleep 0.1; done
[ -s "$work/sshd.pid" ] || { say "sshd did not start:"; cat "$work/sshd.log" >&2; exit 3; }
sshd_pid=$(cat "$work/sshd.pid")
say "sshd $sshd_pid on 127.0.0.1:$port"

# The vault for the injected failure outlives zel-tc: started here, one command made to fail.
"$zel_tc" vault start --socket "$work/vault/socket" >&2
"$zel_tc" vault fail --socket "$work/vault/socket" --cmd "$injected_cmd" --result BUSY --origin TEE

# What zel-tc itself says the plan is: the case names LAVA must list, each once.
"$zel_tc" run --all --results "$work/expected.jsonl" > /dev/null 2>&1 ||
  { say "the plan does not pass outside LAVA"; exit 1; }

# The device as lava-server would render it for device-type "ssh".
cat > "$work/device.yaml" << DEVICE
constants:
  default-shell-prompt: "lava-test: # "
  shutdown-message: "The system is going down for reboot NOW"
  kernel-start-message: "Linux version [0-9]"
  boot_retry: 1
  failure_retry: 1
  spawn_maxread: "4092"
  posix:
    lava_test_sh_cmd: /bin/sh
    lava_test_results_dir: /lava-%s
    lava_test_shell_file: ~/.bashrc
commands: {}
actions:
  deploy:
    connections: {ssh: null, serial: null}
    methods:
      ssh:
        host: 127.0.0.1
        port: $port
        user: root
        identity_file: $work/client_key
        options: ['-o', 'StrictHostKeyChecking=no', '-o', 'UserKnownHostsFile=/dev/null',
                  '-o', 'PasswordAuthentication=no', '-o', 'BatchMode=yes', '-o', 'LogLevel=FATAL']
  boot:
    connections: {ssh: null, serial: null}
    methods: {ssh: null}
timeouts:
  actions: {}
  connections: {}
DEVICE

# The test definition's script, run inline from this checkout with the build's zel-tc.
definition() {  # name, script arguments
  cat << DEFINITION
    - repository:
        metadata:
          format: Lava-Test Test Definition 1.0
          name: $1
          description: zel-tc through the LAVA test definition
        run:
          steps:
          - sh $repo/lava/automated/linux/zel-tc/zel-tc.sh -z $zel_tc -o $work/device/$1 $2
      from: inline
      name: $1
      path: inline/$1.yaml
DEFINITION
}
{
  cat << JOB
device_type: ssh
job_name: zel-tc plan through lava-run on an SSH device
priority: medium
visibility: public
timeouts:
  job: {minutes: 10}
  action: {minutes: 5}
  connection: {minutes: 2}
actions:
- deploy:
    to: ssh
    os: debian
- boot:
    method: ssh
    connection: ssh
    prompts: ['root@[^:]*:[^#]*# ']
- test:
    definitions:
JOB
  definition plan "-t 60"
  definition injected "-t 60 -e '--socket $work/vault/socket'"
  definition repeated "-s 'process bist' -r 2 -t 60"
} > "$work/job.yaml"

# The example job for SSH devices must stay a job this dispatcher accepts.
lava-run --validate --job-id "$job_id" --output-dir "$work/validate" --device "$work/device.yaml" \
  lava/jobs/zel-tc-ssh-device.yaml > "$work/validate.log" 2>&1 ||
  { cat "$work/validate.log" >&2; say "lava/jobs/zel-tc-ssh-device.yaml does not validate"; exit 1; }

say "lava-run (job $job_id)"
lava_status=0
timeout 900 lava-run --job-id "$job_id" --output-dir "$work/output" --device "$work/device.yaml" \
  "$work/job.yaml" > "$work/lava.log" 2>&1 || lava_status=$?
cp "$work/lava.log" "$repo/build-ci/lava-proof.log"
say "lava-run exited $lava_status; its log: build-ci/lava-proof.log"
[ "$lava_status" -eq 0 ] || grep -E '"lvl": "(error|exception)"' "$work/lava.log" | tail -5 >&2

$python "$repo/scripts/lava_results_check.py" "$work/lava.log" "$work/expected.jsonl" \
  "$injected_case"
