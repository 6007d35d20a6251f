#!/usr/bin/env bash
# Runs the window under a virtual X server (Xvfb, started and stopped here), presses two demo
# keys, grabs the real window and checks its drawn cells; the PNG stays as a test artefact.
# With "displays" the server has two screens (Qt sees two displays, both named "screen") and the
# self-test puts a movie on the second.
# With "operator" a window manager (openbox) runs on the server and the self-test drives the
# window with real X clicks and keys.
# Usage: xvfb-screenshot.sh APP_SELFTEST OUTPUT.png [displays|operator]
set -u
selftest=$1
shot=$2
mode=${3:-window}
mkdir -p "$(dirname "$shot")"
home=$(mktemp -d)
wm=""
trap 'kill $wm "$xvfb" 2>/dev/null; wait "$xvfb" 2>/dev/null; rm -rf "$home"' EXIT

# A display number nobody uses (each mode its own range: ctest runs them side by side).
display=""
first=90
[ "$mode" = displays ] && first=120
[ "$mode" = operator ] && first=150
for n in $(seq "$first" $((first + 29))); do
    if [ ! -e "/tmp/.X11-unix/X$n" ] && [ ! -e "/tmp/.X$n-lock" ]; then display=":$n"; break; fi
done
[ -n "$display" ] || { echo "FAIL no free X display"; exit 1; }
if [ "$mode" = displays ]; then
    Xvfb "$display" -screen 0 1920x1200x24 -screen 1 1280x720x24 -nolisten tcp >/dev/null 2>&1 &
    checks=(VORLIN_SELFTEST_DISPLAYS="$shot")
elif [ "$mode" = operator ]; then
    # A laptop's screen.
    Xvfb "$display" -screen 0 1366x768x24 -nolisten tcp >/dev/null 2>&1 &
    checks=(VORLIN_SELFTEST_OPERATOR="$shot")
else
    Xvfb "$display" -screen 0 1920x1200x24 -nolisten tcp >/dev/null 2>&1 &
    checks=(VORLIN_SELFTEST_LAYOUT=1 VORLIN_SELFTEST_SCREENSHOT="$shot")
fi
xvfb=$!
for _ in $(seq 50); do [ -e "/tmp/.X11-unix/X${display#:}" ] && break; sleep 0.1; done
if [ "$mode" = operator ]; then
    command -v openbox >/dev/null || { echo "FAIL no window manager (scripts/setup installs openbox)"; exit 1; }
    DISPLAY=$display openbox --config-file /dev/null >/dev/null 2>&1 &
    wm=$!
    sleep 0.5
fi

DISPLAY=$display QT_QPA_PLATFORM=xcb XDG_DATA_HOME=$home XDG_CONFIG_HOME=$home \
    XDG_RUNTIME_DIR=$home JACK_DEFAULT_SERVER=vorlin-no-such-server \
    env "${checks[@]}" timeout 150 "$selftest"
