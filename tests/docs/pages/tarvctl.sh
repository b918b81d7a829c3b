# What the lines of docs/tarvctl.md find where they are typed: the project of the quick start.
if [ ! -d adder ]; then
  tarv-new adder
  cmake -S adder -B adder/build
  cmake --build adder/build
fi >&2
export XDG_RUNTIME_DIR=$HOME
chmod 700 "$HOME"
rm -f record
