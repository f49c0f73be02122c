#!/bin/sh
# A health check of a sensor host, for `telvane diagnose`.
# Lines holding a number sign are dropped before the script is sent, so none is used below but in
# comments. Problems are printed between asterisks, which the transcript shows in red; the exit status
# counts them.

problems=0
problem() { problems=$((problems + 1)); }

echo "Host:     $(uname -n), $(uname -sr) on $(uname -m)"
echo "Up:      $(uptime)"

# Load against the number of cores.
cores=$(getconf _NPROCESSORS_ONLN 2>/dev/null || echo 1)
load=$(cut -d ' ' -f 1 /proc/loadavg 2>/dev/null)
if [ -z "$load" ]; then
    echo "Load:     *unknown* (no /proc/loadavg)"; problem
elif awk -v l="$load" -v c="$cores" 'BEGIN { exit !(l > c) }'; then
    echo "Load:     *high* $load on $cores cores"; problem
else
    echo "Load:     $load on $cores cores"
fi

# Memory that can still be had without swapping.
total=$(awk '/^MemTotal:/ { print $2 }' /proc/meminfo 2>/dev/null)
avail=$(awk '/^MemAvailable:/ { print $2 }' /proc/meminfo 2>/dev/null)
if [ -n "$total" ] && [ -n "$avail" ] && [ "$total" -gt 0 ]; then
    percent=$((avail * 100 / total))
    if [ "$percent" -lt 10 ]; then
        echo "Memory:   *low* $((avail / 1024)) MiB of $((total / 1024)) MiB available"; problem
    else
        echo "Memory:   $((avail / 1024)) MiB of $((total / 1024)) MiB available"
    fi
fi

# Every local file system at 90 % or more is a problem.
full=$(df -P -l -x tmpfs -x devtmpfs 2>/dev/null | awk 'NR > 1 { sub("%", "", $5); if ($5 + 0 >= 90) print $6 " " $5 "%" }')
df -P -l -x tmpfs -x devtmpfs 2>/dev/null | awk 'NR > 1 { printf "Disk:     %-20s %5s used of %s KiB\n", $6, $5, $2 }'
if [ -n "$full" ]; then
    echo "$full" | while read -r mount use; do echo "Disk:     *full* $mount at $use"; done
    problem
fi

# The SSH service itself, and any failed system units.
if pgrep -x sshd >/dev/null 2>&1; then
    echo "Service:  sshd running"
else
    echo "Service:  *sshd not running*"; problem
fi
if command -v systemctl >/dev/null 2>&1 && systemctl is-system-running >/dev/null 2>&1; then
    failed=$(systemctl --failed --no-legend 2>/dev/null | wc -l)
    if [ "$failed" -gt 0 ]; then
        echo "Service:  *$failed failed units*"; problem
    fi
fi

# The clock: a sensor with a wrong clock reports wrong times.
echo "Clock:    $(date -u '+%Y-%m-%d %H:%M:%S UTC')"

if [ "$problems" -eq 0 ]; then
    echo "All checks passed."
else
    echo "*$problems problem(s) found*"
fi
exit "$problems"
