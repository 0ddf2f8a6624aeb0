#!/usr/bin/env bash
# make demo: install what is missing, build the apps (Release), and run the
# scripted scenario of scripts/demo_scenario.sh against a private broker.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
"$here/install_deps.sh"
echo "building sfgw and sfcloud (Release) ..."
bin=$("$here/build_apps.sh")
# the gateway's state file under the build tree; the scenario starts it afresh
export SFGW_STATE="$(dirname "$bin")/demo-state.db"
status=0
"$here/demo_scenario.sh" "$bin" "$@" || status=$?
cat <<'EOT'

To watch the gateway in a browser: make run, then open the web console at the
address it prints (http://127.0.0.1:8080/ when that port is free); see
docs/web-console.md. scripts/run.sh stop ends it.
EOT
exit $status
