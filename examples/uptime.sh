# uptime: the sensor's uptime and load as Prometheus metrics, for telvane-exporter.
# Every line that holds a number sign is removed before sending, so the HELP and TYPE lines get theirs from
# printf. __THRESHOLD__ comes from the module's arguments.
h=$(printf '\043')
read -r up idle < /proc/uptime
set -- $(cat /proc/loadavg)
echo "$h HELP sensor_uptime_seconds Seconds since the sensor booted."
echo "$h TYPE sensor_uptime_seconds gauge"
echo "sensor_uptime_seconds $up"
echo "$h HELP sensor_load1 Load average over one minute."
echo "$h TYPE sensor_load1 gauge"
echo "sensor_load1 $1"
echo "sensor_load_threshold __THRESHOLD__"
