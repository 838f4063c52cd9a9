# Sourced by the Wine runners: gives build tree $1 its own Wine prefix, starts
# one persistent Wine server for the caller's whole run with its output
# detached (a Wine process that inherits a test runner's pipe makes the runner
# wait for ever), initialises the prefix, and stops the server on exit.
build_dir=$(cd "$1" && pwd)

export WINEPREFIX="$build_dir/wineprefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
wine_loader=${PLMX_WINE_LOADER:-/usr/lib/wine/wine64}
wine_server=${PLMX_WINE_SERVER:-/usr/lib/wine/wineserver64}

stop_wine_server() { "$wine_server" -k >/dev/null 2>&1 || true; }
trap stop_wine_server EXIT

"$wine_server" -p </dev/null >/dev/null 2>&1
"$wine_loader" wineboot --init </dev/null >/dev/null 2>&1

# \\localhost\C$ reaches drive C: as the administrative share does on Windows,
# so that tests copy through real UNC paths.
mkdir -p "$WINEPREFIX/dosdevices/unc/localhost"
ln -sfn ../../c: "$WINEPREFIX/dosdevices/unc/localhost/C\$"
