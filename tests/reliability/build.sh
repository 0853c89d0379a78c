# build.sh: for the families' scripts; to be sourced in the project's folder.
#
# build <preset> <target>...: configures build-<preset> if need be, and builds the targets. Says
# nothing unless that fails.
build() {
    local preset=$1
    local log=build-$preset.log
    shift
    [ -f "build-$preset/build.ninja" ] || cmake --preset "$preset" >"$log" 2>&1 ||
        { cat "$log"; return 1; }
    cmake --build "build-$preset" -j "$(nproc)" --target "$@" -- --quiet >"$log" 2>&1 ||
        { cat "$log"; return 1; }
}
