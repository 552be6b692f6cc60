# What ./run starts and ends, sourced by the scripts that show the program at work. They set out, the folder of this
# run, and call begin first.

started=()
finish() {
    for ((i = ${#started[@]} - 1; i >= 0; i--)); do kill "${started[i]}" 2>/dev/null || true; done
    wait 2>/dev/null || true
}
fail() {
    echo "FAILED: $1" >&2
    for log in "$out"/*.log; do echo "--- ${log##*/}" && tail -n 20 "$log"; done >&2
    exit 1
}
begin() {
    rm -rf "$out"
    mkdir -p "$out/support"
    trap finish EXIT
    trap 'exit 130' INT TERM
}

# Within ten seconds the command succeeds; $1 says what was waited for.
await() {
    local what=$1
    shift
    for ((i = 0; i < 200; i++)); do
        "$@" >/dev/null 2>&1 && return
        sleep 0.05
    done
    fail "$what"
}

xserver() { # how it shall tell its number
    exec Xvfb "$@" -screen 0 1280x720x24 -nolisten tcp -noreset
}
clock_at=200x200+1010+440
terminal_at=82x24+40+50

# A desktop: an X server with a number of its own choosing, a window manager, a terminal, and a clock that moves.
start_desktop() {
    local ready number
    exec {ready}<> <(:)
    xserver -displayfd "$ready" >"$out/xserver.log" 2>&1 &
    started+=($!)
    read -r -t 20 -u "$ready" number || fail "the X server did not start"
    export DISPLAY=:$number LC_ALL=C.UTF-8
    xsetroot -solid '#31475e'
    # It may overlook windows for good that are mapped before it has started.
    openbox --startup 'xsetroot -name started' >"$out/desktop.log" 2>&1 &
    started+=($!)
    await "the window manager did not start" sh -c 'xprop -root WM_NAME | grep -q "\"started\""'
    xclock -update 0.1 -geometry "$clock_at" >>"$out/desktop.log" 2>&1 &
    started+=($!)
    (cd "$out" && exec xterm -u8 -fa 'DejaVu Sans Mono' -fd 'Noto Sans Mono CJK SC' -fs 13 -bg '#1d232a' \
        -fg '#e6e1cf' -title Terminal -geometry "$terminal_at" -e env PS1='$ ' bash --norc --noprofile) \
        >>"$out/desktop.log" 2>&1 &
    started+=($!)
    await "the terminal did not start" xwininfo -name Terminal
}

# The phone's part: click into the terminal, type, look. $1: by what way.
line='你好，Pelorin：桌面就在手中'
write_input() {
    cat >"$out/input.script" <<SCRIPT
expect change 5
moveto 400 300
click left
wait 1000
text echo '$line' > typed.txt; cat typed.txt
key return
wait 1500
text echo "seen and typed over $1, \$(date +%F)"
key return
wait 1500
quit
SCRIPT
}
check_typed() {
    [ "$(cat "$out/typed.txt" 2>/dev/null)" = "$line" ] || fail "what was typed did not arrive"
    rm "$out/typed.txt"
}
