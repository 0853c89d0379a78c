#!/bin/sh
# names.sh <file> <count>: a C source with keys as further names of the module's function. The keys
# are no names of C.
seq 0 $(($2 - 1)) | awk '
    BEGIN { print "__asm__(\".text\\n\"" }
    { name = sprintf("\\\"bench.codec.%06d\\\"", $1)
      print "\".globl " name "\\n.type " name ", @function\\n" name ":\\n\"" }
    END { print "\"jmp BenchCreate@PLT\\n\");" }' >"$1"
