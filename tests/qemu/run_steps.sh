#!/bin/busybox sh
# run-steps FILE: the VM's runner for a case made of steps, one shell command a line, run in
# turn in the working folder. For each step it prints "$ STEP", the step's standard output,
# "--- stderr", its standard error, and "--- exit N", so one case shows a run and what the drive
# reports after it.
while IFS= read -r step || [ -n "$step" ]; do
    case "$step" in "" | "#"*) continue ;; esac
    echo "\$ $step"
    sh -c "$step" >/tmp/step-out 2>/tmp/step-err
    code=$?
    cat /tmp/step-out
    echo "--- stderr"
    cat /tmp/step-err
    echo "--- exit $code"
done <"$1"
