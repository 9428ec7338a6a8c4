#!/bin/sh
# Reads, writes and follows one text property with gdbus, which comes with GLib.
# Usage: gdbus.sh read|write|follow OBJECT INTERFACE PROPERTY [TEXT]
set -eu

service=com.brenvok.korvaneinfod
command=$1 object=$2 interface=$3 property=$4

call() {
    method=$1
    shift
    gdbus call --system --dest $service --object-path "$object" --method "org.freedesktop.DBus.Properties.$method" "$@"
}

case $command in
read) call Get "$interface" "$property" ;;
write) call Set "$interface" "$property" "<'$5'>" ;; # a value in GVariant text format: <'text'>, <uint32 7>, <true>
follow)
    # The signal does not carry the new value. A daemon that has started anew has read its files anew.
    gdbus monitor --system --dest $service --object-path "$object" |
        while read -r line; do
            case $line in *' is owned by '* | *PropertiesChanged*) call Get "$interface" "$property" ;; esac
        done
    ;;
esac
