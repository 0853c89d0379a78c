#!/bin/sh
# Checks what the files of built libraries say, without running them.
#
#   tables.sh exports <objdump> <library> <name>...       these names and no others
#   tables.sh numbers <objdump> <library> <name>...       exported with the numbers 1, 2, ...
#   tables.sh libraries <objdump> <library> <name>...     imports from these libraries alone
#   tables.sh imports <objdump> <library> <from> <name>...   from that one these, "#n" by number
#   tables.sh uses <objdump> <library> <from> <name>...      from that one these among others
#   tables.sh avoids <objdump> <library> <name>...           imports these from nowhere
#   tables.sh threads <nm> <library> <link map>           no thread library and no thread-locals
#
# What is wrong is said line by line, and the exit code is 1.
set -u

fail() {
    echo "tables.sh: $*" >&2
    exit 2
}

say() { printf '%s\n' "$@"; }

# has <lines> <line>
has() {
    case "
$1
" in
        *"
$2
"*) return 0 ;;
    esac
    return 1
}

status=0

# expect_all <what> <expected lines> <actual lines>
expect_all() {
    for name in $2; do
        has "$3" "$name" || { say "$1: missing $name" && status=1; }
    done
}

# expect_only <what> <expected lines> <actual lines>
expect_only() {
    [ -n "$3" ] || fail "$1: nothing found"
    for name in $3; do
        has "$2" "$name" || { say "$1: unexpected $name" && status=1; }
    done
}

expect_equal() {
    expect_only "$@"
    expect_all "$@"
}

# The part of the dump that begins with a line and ends with an empty one.
part() { say "$dump" | awk -v start="$1" 'index($0, start) == 1 { on = 1; next } /^$/ { on = 0 } on'; }

# "<place in the table> <name>" for each.
exported_names() { part "[Ordinal/Name Pointer] Table" | sed 's/^[^0-9]*\([0-9]*\)\]/\1/' | awk '{ print $1, $NF }'; }

# "<library> <function>" for each, by number as "#1".
imported() {
    say "$dump" | awk '
        $1 == "DLL" && $2 == "Name:" { library = $3; next }
        $1 == "vma:" || library == "" { next }
        /^$/ { library = ""; next }
        $1 ~ /^80000000/ { print library, "#" $2 + 0; next }
        { print library, $3 }'
}

imported_from() { imported | awk -v from="$1" '$1 == from { print $2 }'; }

[ $# -ge 4 ] || fail "usage: $0 <check> <tool> <library> ..."
command=$1 tool=$2 library=$3
shift 3
[ -f "$library" ] || fail "there is no $library"

if [ "$command" = threads ]; then
    [ -s "$1" ] || fail "there is no link map $1"
    grep -q "^Archive member included" "$1" || fail "$1 is no link map"
    if members=$(grep -oE 'lib(win)?pthread[a-z.]*\.a\([^)]*\)' "$1"); then
        say "$members" | sort -u | sed 's/^/threads: linked with /'
        status=1
    fi
    symbols=$("$tool" "$library") || fail "$tool fails"
    if locals=$(say "$symbols" | grep -oE '__emutls_[vt]\.[^ ]+'); then
        # Where the compiler's own library keeps the state of its exceptions.
        exceptions='__emutls_v._ZZN12_GLOBAL__N_110get_globalEvE6global'
        for name in $locals; do
            [ "$name" = "$exceptions" ] || { say "threads: thread-local $name" && status=1; }
        done
    fi
    exit "$status"
fi

dump=$("$tool" -p "$library") || fail "$tool fails"
case $command in
    exports)
        count=$(say "$dump" | awk '/^\tExport Address Table/ { print $4; exit }')
        # Some might have no name.
        [ "$((0x$count))" -eq $# ] || { say "exports: $((0x$count)) entries, not $#" && status=1; }
        expect_equal exports "$(say "$@")" "$(exported_names | cut -d' ' -f2)"
        ;;
    numbers)
        base=$(say "$dump" | awk '/^Ordinal Base/ { print $3 }')
        actual=$(exported_names | while read -r place name; do say "$((place + base))=$name"; done)
        number=0
        for name; do
            number=$((number + 1))
            expect_all numbers "$number=$name" "$actual"
        done
        ;;
    libraries)
        expect_only libraries "$(say "$@")" "$(imported | cut -d' ' -f1 | sort -u)"
        ;;
    imports)
        from=$1
        shift
        expect_equal "imports from $from" "$(say "$@")" "$(imported_from "$from")"
        ;;
    uses)
        from=$1
        shift
        expect_all "imports from $from" "$(say "$@")" "$(imported_from "$from")"
        ;;
    avoids)
        actual=$(imported | cut -d' ' -f2)
        [ -n "$actual" ] || fail "imports: nothing found"
        for name; do
            has "$actual" "$name" && say "imports: unexpected $name" && status=1
        done
        ;;
    *) fail "no check \"$command\"" ;;
esac
exit "$status"
