#!/bin/sh
# keys.sh <file> <count>: the keys of a plug-in as its description names them.
seq 0 $(($2 - 1)) | awk '
    BEGIN { printf "{ \"Keys\": [" }
    { printf "%s\"bench.codec.%06d\"", (NR > 1 ? ", " : " "), $1 }
    END { print " ] }" }' >"$1"
