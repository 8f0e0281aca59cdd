#!/usr/bin/env bash
# The README's SLURM recipe, run as printed on a real one-machine SLURM (Debian's slurmctld,
# slurmd and munge) that this script starts in a temporary folder with its own configuration,
# state, logs and ports, and stops again by process id however it ends.
#
#   slurm_recipe.sh TREMORA_MAP README.md
#
# map.sh, merge.sh and the two sbatch lines are taken from README.md, so that what users read
# is what runs here; only the array's size is changed to the number of clips.
set -euo pipefail

tool=$(realpath "$1")
readme=$(realpath "$2")
[ -x "$tool" ] || { echo "FAIL: no tremora-map at $1" >&2; exit 1; }
for program in munged mungekey slurmctld slurmd sbatch scontrol scancel sinfo ffmpeg python3; do
  command -v "$program" >/dev/null || { echo "FAIL: $program is missing (scripts/test installs it)" >&2; exit 1; }
done

work=$(realpath "$(mktemp -d "${TMPDIR:-/tmp}/tremora-cluster.XXXXXX")")
chmod 755 "$work"
daemon_pids=()
submitted=()

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

stop_cluster() {
  local status=$?
  set +e
  if [ ${#submitted[@]} -gt 0 ]; then
    scancel "${submitted[@]}" 2>/dev/null
    for _ in $(seq 50); do
      [ -z "$(squeue -h -j "$(IFS=,; echo "${submitted[*]}")" 2>/dev/null)" ] && break
      sleep 0.2
    done
  fi
  local pid
  for pid in "${daemon_pids[@]}"; do
    kill -TERM "$pid" 2>/dev/null
  done
  for pid in "${daemon_pids[@]}"; do
    for _ in $(seq 50); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.2
    done
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
  done
  if [ "$status" -ne 0 ]; then
    echo "--- logs of the test's SLURM (kept in $work)" >&2
    tail -n 20 "$work"/slurm/log/*.log >&2
  else
    rm -rf "$work"
  fi
  exit "$status"
}
trap stop_cluster EXIT
trap 'exit 130' INT TERM

# Jobs inherit the submitter's environment: leave out any SLURM of the machine running this.
while read -r name; do unset "$name"; done < <(compgen -e | grep '^SLURM_' || true)

mkdir -p "$work/bin"
ln -s "$tool" "$work/bin/tremora-map"
export PATH="$work/bin:$PATH"

# --- the cluster ------------------------------------------------------------------------

free_ports() {
  python3 -c '
import socket
sockets = [socket.socket() for _ in range(2)]
for s in sockets:
    s.bind(("127.0.0.1", 0))
print(*(s.getsockname()[1] for s in sockets))'
}

start_cluster() {
  local root=$work/slurm
  mkdir -p "$root/etc" "$root/state" "$root/spool" "$root/log" "$root/munge-key" "$root/munge"
  chmod 700 "$root/munge-key"
  chmod 755 "$root/munge"
  mungekey --create --keyfile="$root/munge-key/munge.key"
  munged --foreground --force --socket="$root/munge/socket" --key-file="$root/munge-key/munge.key" \
    --pid-file="$root/munge/pid" --seed-file="$root/munge/seed" --log-file="$root/log/munged.log" \
    >>"$root/log/munged.log" 2>&1 &
  daemon_pids+=($!)

  local host ctld_port node_port node_line
  host=$(hostname -s)
  read -r ctld_port node_port < <(free_ports)
  # The node as slurmd finds it on this machine, reached over the loopback address.
  node_line=$(slurmd -C | head -n 1)
  [[ $node_line == "NodeName=$host "* ]] || fail "slurmd -C describes another node: $node_line"
  # Prolog and Epilog note when each job starts and ends, to the nanosecond.
  printf '#!/bin/sh\necho "start $SLURM_JOB_ID $(date +%%s.%%N)" >>%s\n' "$root/log/jobs" >"$root/etc/prolog"
  printf '#!/bin/sh\necho "end $SLURM_JOB_ID $(date +%%s.%%N)" >>%s\n' "$root/log/jobs" >"$root/etc/epilog"
  chmod 755 "$root/etc/prolog" "$root/etc/epilog"
  : >"$root/etc/plugstack.conf"
  cat >"$root/etc/slurm.conf" <<EOF
ClusterName=tremoratest
SlurmctldHost=$host(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$node_port
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$root/munge/socket
StateSaveLocation=$root/state
SlurmdSpoolDir=$root/spool
SlurmctldPidFile=$root/slurmctld.pid
SlurmdPidFile=$root/slurmd.pid
SlurmctldLogFile=$root/log/slurmctld.log
SlurmdLogFile=$root/log/slurmd.log
PlugStackConfig=$root/etc/plugstack.conf
Prolog=$root/etc/prolog
Epilog=$root/etc/epilog
MailProg=/bin/true
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SwitchType=switch/none
MpiDefault=none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
ReturnToService=2
MinJobAge=3600
$node_line NodeAddr=127.0.0.1 State=UNKNOWN
PartitionName=tremora Nodes=$host Default=YES MaxTime=INFINITE State=UP
EOF
  export SLURM_CONF=$root/etc/slurm.conf
  slurmctld -D -c >>"$root/log/slurmctld.out" 2>&1 &
  daemon_pids+=($!)
  slurmd -D >>"$root/log/slurmd.out" 2>&1 &
  daemon_pids+=($!)

  local state=""
  for _ in $(seq 150); do
    state=$(sinfo -h -n "$host" -o %t 2>/dev/null || true)
    [ "$state" = idle ] && return 0
    sleep 0.2
  done
  fail "the node did not become idle within 30 s (last state: '${state:-none}')"
}

# --- the recipe, from the README ------------------------------------------------------------

# Writes the README's map.sh and merge.sh and its submission lines into $1, the array
# sized to $2 tasks.
recipe_into() {
  python3 - "$readme" "$1" "$2" <<'EOF'
import pathlib, re, sys

readme, folder, tasks = pathlib.Path(sys.argv[1]).read_text(), pathlib.Path(sys.argv[2]), int(sys.argv[3])

def block_after(marker):
    at = readme.index(marker)
    match = re.compile(r"^```sh\n(.*?)^```$", re.S | re.M).search(readme, at)
    if not match:
        sys.exit(f"no sh block after {marker!r} in the README")
    return match.group(1), match.end()

map_sh, end = block_after("(`map.sh`)")
merge_sh, end = block_after("(`merge.sh`)")
submit = re.compile(r"^```sh\n(.*?)^```$", re.S | re.M).search(readme, end).group(1)
sized, count = re.subn(r"--array=0-99\b", f"--array=0-{tasks - 1}", map_sh)
if count != 1:
    sys.exit("the README's map.sh has no '--array=0-99' to size")
if "sbatch" not in submit or "map.sh" not in submit or "merge.sh" not in submit:
    sys.exit("the block after merge.sh does not submit map.sh and merge.sh")
(folder / "map.sh").write_text(sized)
(folder / "merge.sh").write_text(merge_sh)
(folder / "submit.sh").write_text(submit)
EOF
}

# Runs the README's submission lines in case folder $1; sets $array and $merge to the ids.
submit_recipe() {
  local out
  out=$(cd "$1" && bash -c "$(cat submit.sh)"$'\necho "array=$array"')
  array=$(sed -n 's/^array=\([0-9]*\)$/\1/p' <<<"$out")
  merge=$(sed -n 's/^Submitted batch job \([0-9]*\)$/\1/p' <<<"$out")
  [ -n "$array" ] && [ -n "$merge" ] || fail "the README's sbatch lines did not submit two jobs: $out"
  submitted+=("$array" "$merge")
}

# Waits until job $1 (every task of an array) has ended.
wait_for_job() {
  local jobs
  for _ in $(seq 600); do
    if jobs=$(scontrol show job -o "$1" 2>/dev/null) && [ -n "$jobs" ] \
      && ! grep -qE 'JobState=(PENDING|RUNNING|CONFIGURING|COMPLETING|SUSPENDED)' <<<"$jobs"; then
      return 0
    fi
    sleep 0.2
  done
  fail "job $1 did not end within 120 s: $(scontrol show job -o "$1")"
}

# "TASK STATE EXIT" per task of array $1, by task index.
task_table() {
  scontrol show job -o "$1" | python3 -c '
import re, sys
rows = []
for line in sys.stdin:
    fields = dict(re.findall(r"(\w+)=(\S*)", line))
    rows.append((int(fields["ArrayTaskId"]), fields["JobState"], fields["ExitCode"]))
for row in sorted(rows):
    print(*row)'
}

job_field() {
  scontrol show job -o "$1" | grep -o "\b$2=[^ ]*" | head -n 1 | cut -d= -f2-
}

expect_tasks() {
  local array=$1 expected=$2 actual
  actual=$(task_table "$array")
  [ "$actual" = "$expected" ] || fail "tasks of array $array ended as
$actual
instead of
$expected"
}

# Every file under the folders given, with its size, modification time (ns) and SHA-256.
snapshot() {
  find "$@" -type f -printf '%p %s %T@ ' -exec sha256sum {} \; | sort
}

# --- clips ------------------------------------------------------------------------------

clip() {
  ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi -i "$2" -c:v libx264 -preset ultrafast \
    -pix_fmt yuv420p "$1"
}

make_clips() {
  mkdir -p "$work/clips"
  clip "$work/clips/cam-1.mp4" "testsrc=s=160x120:r=25:d=2"
  clip "$work/clips/cam-2.mp4" "testsrc2=s=160x120:r=25:d=2,noise=alls=10:allf=t"
  clip "$work/clips/cam-4.mp4" "smptebars=s=160x120:r=25:d=2,hue=H=2*PI*t"
  # Long enough to be cancelled while it is analysed.
  clip "$work/clips/cam-5.mp4" "testsrc2=s=160x120:r=25:d=600,noise=alls=6:allf=t"
  # A recording cut short: the container's index, written last, is missing.
  head -c 3000 "$work/clips/cam-1.mp4" >"$work/clips/cam-3.mp4"
}

new_case() {
  local case=$work/$1
  shift
  mkdir -p "$case/archive"
  local name
  for name in "$@"; do
    cp "$work/clips/$name" "$case/archive/"
  done
  recipe_into "$case" "$#"
  echo "$case"
}

# The merged files of case folder $1 against a local combine of the clips after it.
expect_merge_matches_local_run() {
  local case=$1
  shift
  (cd "$case" && tremora-map --quiet --data --combine archive --output-dir local "$@") \
    || fail "the local combine of $* failed"
  local names
  names=$(cd "$case/local" && ls)
  [ "$(cd "$case/merged" && ls)" = "$names" ] || fail "merged/ holds $(ls "$case/merged"), local/ $names"
  local name
  for name in $names; do
    [ "$name" = archive.json ] && continue
    cmp "$case/merged/$name" "$case/local/$name" || fail "merged/$name differs from the local run's"
  done
  python3 - "$case/merged/archive.json" "$case/local/archive.json" <<'EOF' || fail "the merged manifest's sums differ"
import json, sys
merged, local = (json.load(open(path)) for path in sys.argv[1:])
for key in ("summary", "files", "width", "height", "scale"):
    if merged[key] != local[key]:
        sys.exit(f"{key}: merged {merged[key]} local {local[key]}")
EOF
}

manifest_status() {
  python3 -c 'import json, sys; m = json.load(open(sys.argv[1])); print(m["outcome"]["status"], len(m["files"]))' "$1"
}

# --- the cases --------------------------------------------------------------------------

start_cluster
make_clips
echo "cluster up and clips made after ${SECONDS}s"

# One run of the recipe over four clips, the third damaged.
case1=$(new_case recipe cam-1.mp4 cam-2.mp4 cam-3.mp4 cam-4.mp4)
submit_recipe "$case1"
[ "$(job_field "$merge" Reason)" = Dependency ] || fail "the merge job was not held for the array"
wait_for_job "$merge"
wait_for_job "$array"
expect_tasks "$array" "0 COMPLETED 0:0
1 COMPLETED 0:0
2 FAILED 1:0
3 COMPLETED 0:0"
[ "$(manifest_status "$case1/maps/cam-3.json")" = "failed 0" ] || fail "cam-3.json does not say failed"
[ "$(job_field "$merge" ExitCode)" = 1:0 ] || fail "the merge ended with $(job_field "$merge" ExitCode), not 1"
grep -q "cam-3.json" "$case1/slurm-$merge.out" || fail "the merge did not name the failed manifest"
# The merge started after the last task had ended and written its files.
merge_start=$(awk -v job="$merge" '$1 == "start" && $2 == job { print $3 }' "$work/slurm/log/jobs")
last_file=$(find "$case1/maps" -type f -printf '%T@\n' | sort -n | tail -n 1)
last_task_end=$(scontrol show job -o "$array" | grep -o 'EndTime=[^ ]*' | sort | tail -n 1 | cut -d= -f2)
[ -n "$merge_start" ] || fail "no start recorded for the merge"
python3 -c 'import sys; sys.exit(not float(sys.argv[1]) < float(sys.argv[2]))' "$last_file" "$merge_start" \
  || fail "the merge started at $merge_start, before the tasks' last file ($last_file)"
[[ ! "$(job_field "$merge" StartTime)" < "$last_task_end" ]] || fail "the merge started before the last task ended"
expect_merge_matches_local_run "$case1" archive/cam-1.mp4 archive/cam-2.mp4 archive/cam-4.mp4
echo "recipe: checked after ${SECONDS}s"

# The same array again, without --overwrite: every task stops with status 1, nothing changes.
before=$(snapshot "$case1/maps" "$case1/merged")
again=$(cd "$case1" && sbatch --parsable map.sh)
submitted+=("$again")
wait_for_job "$again"
expect_tasks "$again" "0 FAILED 1:0
1 FAILED 1:0
2 FAILED 1:0
3 FAILED 1:0"
[ "$(snapshot "$case1/maps" "$case1/merged")" = "$before" ] || fail "running the array again changed files"
echo "run again: checked after ${SECONDS}s"

# A task cancelled in the middle of its clip.
case3=$(new_case cancel cam-1.mp4 cam-2.mp4 cam-5.mp4)
submit_recipe "$case3"
# The long clip's process, once it has spent a moment decoding.
ticks_per_second=$(getconf CLK_TCK)
long_pid=""
for _ in $(seq 600); do
  for pid in $(pgrep -x tremora-map || true); do
    [ "$(readlink "/proc/$pid/cwd")" = "$case3" ] || continue
    tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -q 'archive/cam-5\.mp4' || continue
    cpu=$(sed 's/.*) //' "/proc/$pid/stat" 2>/dev/null | awk '{ print $12 + $13 }' || true)
    [ -n "$cpu" ] && [ "$cpu" -ge $((ticks_per_second / 4)) ] && long_pid=$pid
  done
  [ -n "$long_pid" ] && break
  sleep 0.1
done
[ -n "$long_pid" ] || fail "the long clip's task was not seen running; its tasks: $(task_table "$array")"
scancel "${array}_2"
wait_for_job "$merge"
wait_for_job "$array"
[ "$(task_table "$array" | awk '$1 == 2 { print $2 }')" = CANCELLED ] \
  || fail "the long clip's task was not cancelled: $(task_table "$array" | awk '$1 == 2')"
# SLURM may report the task cancelled while its processes are still stopping.
for _ in $(seq 150); do
  process_state=$(awk '{ print $3 }' "/proc/$long_pid/stat" 2>/dev/null || true)
  [ -z "$process_state" ] || [ "$process_state" = Z ] && break
  sleep 0.2
done
[ -z "$process_state" ] || [ "$process_state" = Z ] || fail "the cancelled task's tremora-map is still running"
expect_tasks "$array" "0 COMPLETED 0:0
1 COMPLETED 0:0
2 CANCELLED 0:15"
[ "$(manifest_status "$case3/maps/cam-5.json")" = "canceled 0" ] || fail "cam-5.json does not say canceled"
# Nothing else of the cancelled clip, and no temporary file of any write.
expected=$(printf '%s\n' cam-{1,2}.{png,events.png,background.png,activity.csv,json} cam-5.json | sort)
[ "$(cd "$case3/maps" && ls -A | sort)" = "$expected" ] || fail "maps/ after the cancel holds
$(ls -A "$case3/maps")"
[ "$(job_field "$merge" ExitCode)" = 1:0 ] || fail "the merge after the cancel ended with $(job_field "$merge" ExitCode)"
merge_start=$(awk -v job="$merge" '$1 == "start" && $2 == job { print $3 }' "$work/slurm/log/jobs")
python3 -c 'import sys; sys.exit(not float(sys.argv[1]) < float(sys.argv[2]))' \
  "$(stat -c %.9Y "$case3/maps/cam-5.json")" "$merge_start" || fail "the merge started before the cancelled task had ended"
grep -q "maps/cam-5.json' records an analysis that did not finish (canceled)" "$case3/slurm-$merge.out" \
  || fail "the merge did not say that cam-5 was canceled: $(cat "$case3/slurm-$merge.out")"

# Running the recipe again finishes the cancelled clip and merges all three.
submit_recipe "$case3"
wait_for_job "$merge"
wait_for_job "$array"
expect_tasks "$array" "0 FAILED 1:0
1 FAILED 1:0
2 COMPLETED 0:0"
[ "$(manifest_status "$case3/maps/cam-5.json")" = "done 4" ] || fail "cam-5.json does not say done"
[ "$(job_field "$merge" ExitCode)" = 0:0 ] || fail "the second merge ended with $(job_field "$merge" ExitCode): $(cat "$case3/slurm-$merge.out")"
expect_merge_matches_local_run "$case3" archive/cam-1.mp4 archive/cam-2.mp4 archive/cam-5.mp4
echo "cancel and run again: checked after ${SECONDS}s"
