#!/bin/sh
# make_hostile_repo.sh DIR: builds DIR/repo, a repository made to trip an
# indexer up, and DIR/outside, what it links to and must never be read. Every
# file outside holds the marker OUTSIDE-SECRET-4f1c9e; nothing inside does.
set -eu
[ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
mkdir -p "$1"
dir=$(cd "$1" && pwd)
out=$dir/outside
repo=$dir/repo
mkdir -p "$out/dir" "$out/memory/codebase-index" "$repo/sub" "$repo/src/deep/build" "$repo/build" "$repo/.ctags.d"
echo 'int OUTSIDE_SECRET_4f1c9e = 1; /* OUTSIDE-SECRET-4f1c9e */' > "$out/secret.c"
echo 'OUTSIDE-SECRET-4f1c9e' > "$out/dir/key.txt"
echo 'OUTSIDE-SECRET-4f1c9e' > "$out/memory/codebase-index/index.db"

cd "$repo"
echo 'int visible_function(void) { return 1; }' > a.c
ln -s "$out/secret.c" absolute_out.c         # a file outside, by absolute path
ln -s ../outside/secret.c relative_out.c     # and by relative path
ln -s ../outside/dir outdir                  # a folder outside
ln -s "$out/memory" memory                   # where the index would go by default
ln -s a.c alias.c                            # a file inside, under a second name
ln -s .. src/up                              # a folder inside: a loop if followed
ln -s loop_b loop_a && ln -s loop_a loop_b   # a link loop
ln -s /dev/zero .gitignore                   # rules that never end
mkfifo sub/.gitignore                        # rules that never come
mkfifo pipe.c
# Names that are not UTF-8 (Latin-1 e-acute, a lone 0xff), in a file name
# and in a folder name.
printf 'int latin1_symbol(void) { return 2; }\n' > "$(printf 'caf\351.c')"
mkdir "$(printf 'd\377')"
printf 'int in_latin1_folder(void) { return 3; }\n' > "$(printf 'd\377')/x.c"
echo 'int deep_build_symbol(void) { return 4; }' > src/deep/build/kept.c
echo 'int top_build_symbol(void) { return 5; }' > build/out.c
# ctags would take this as an option file if it read them from the working
# directory: no functions or variables from C.
echo '--kinds-C=-fv' > .ctags.d/hide.ctags
