#!/bin/busybox sh
# The VM's first process: loads the disk drivers, runs every case of /cases with quenmark, and
# sends the results to the host on the second serial port as a base64 tar archive.
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t tracefs tracefs /sys/kernel/tracing

while read -r module; do
    insmod "/modules/$module" || echo "quenmark-vm: insmod $module failed"
done </modules/order

echo "quenmark-vm: SCSI devices"
for node in /sys/class/scsi_generic/*; do
    echo "  ${node##*/} $(cat "$node/device/vendor") $(cat "$node/device/model") \
$(ls "$node/device/block" 2>/dev/null)"
done

tracing=/sys/kernel/tracing
echo 1 >"$tracing/events/libata/ata_qc_issue/enable"
# Completions too, so that the suite can time a download from its first command to its last.
echo 1 >"$tracing/events/libata/ata_qc_complete_done/enable"
stty -F /dev/ttyS1 raw -echo
echo QUENMARK-VM-UP >/dev/ttyS1

uptime_cs() {
    read -r up _ </proc/uptime
    echo "${up%.*}${up#*.}"
}

# run_case NAME: runs the case's arguments in /work, its outputs in /results/NAME.
run_case() {
    case_dir=/cases/$1
    out=/results/$1
    mkdir -p "$out"
    set --
    program=quenmark
    if [ -f "$case_dir/steps" ]; then
        set -- "$case_dir/steps"
        program=run-steps
    else
        while IFS= read -r line || [ -n "$line" ]; do
            set -- "$@" "$line"
        done <"$case_dir/args"
        [ -f "$case_dir/program" ] && program=$(cat "$case_dir/program")
    fi
    echo >"$tracing/trace"
    start=$(uptime_cs)
    if [ -f "$case_dir/user" ]; then
        (cd /work && su -s /bin/sh "$(cat "$case_dir/user")" -c 'exec "$0" "$@"' "$program" \
            "$@" >"$out/stdout" 2>"$out/stderr")
    else
        (cd /work && "$program" "$@" >"$out/stdout" 2>"$out/stderr")
    fi
    echo $? >"$out/exit"
    end=$(uptime_cs)
    cat "$tracing/trace" >"$out/trace"
    elapsed=$((end - start))
    printf '%d.%02d\n' $((elapsed / 100)) $((elapsed % 100)) >"$out/seconds"
}

held=""
while read -r name; do
    [ -n "$name" ] || continue
    echo "quenmark-vm: case $name"
    if [ -f "/cases/$name/hold" ]; then
        run_case "$name" &
        held=$!
        sleep "$(cat "/cases/$name/hold")"
        continue
    fi
    run_case "$name"
    if [ -n "$held" ]; then
        wait "$held"
        held=""
    fi
done </cases/order

{
    echo QUENMARK-RESULTS-BEGIN
    cd /results && tar -cf - . | base64
    echo QUENMARK-RESULTS-END
} >/dev/ttyS1
sync
poweroff -f
