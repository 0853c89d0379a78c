# build.sh: for the families' scripts; to be sourced in the project's folder.
#
# build <preset> <target>...: configures build-<preset> if need be, and builds the targets.
build() {
    local preset=$1
    shift
    [ -f "build-$preset/build.ninja" ] || cmake --preset "$preset" >"build-$preset.log" 2>&1 ||
        { cat "build-$preset.log"; return 1; }
    cmake --build "build-$preset" -j "$(nproc)" --target "$@" -- --quiet
}
