#!/bin/sh
# Reads, writes and follows one text property with busctl, which comes with systemd.
# Usage: busctl.sh read|write|follow OBJECT INTERFACE PROPERTY [TEXT]
set -eu

service=com.brenvok.korvaneinfod
command=$1 object=$2 interface=$3 property=$4

get() { busctl get-property $service "$object" "$interface" "$property"; }

case $command in
read) get ;;
write) busctl set-property $service "$object" "$interface" "$property" s "$5" ;;
follow)
    # Only root may monitor the system bus; gdbus.sh shows a way for everyone. Each message is one line.
    busctl monitor --json=short \
        --match="type='signal',sender='$service',path='$object',member='PropertiesChanged'" 2>&1 |
        while read -r line; do
            case $line in 'Monitoring bus message stream.' | *PropertiesChanged*) get ;; esac
        done
    ;;
esac
