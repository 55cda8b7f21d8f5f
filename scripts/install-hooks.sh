#!/usr/bin/env bash
# Installs a pre-commit hook that refuses C++ files clang-format would change.
set -euo pipefail
root=$(git -C "$(dirname "$0")" rev-parse --show-toplevel)
cd "$root"
hook="$(git rev-parse --git-path hooks)/pre-commit"
mkdir -p "$(dirname "$hook")"
cat > "$hook" <<'HOOK'
#!/usr/bin/env bash
files=$(git diff --cached --name-only --diff-filter=ACM -- '*.cpp' '*.h')
[ -z "$files" ] && exit 0
bad=$(for f in $files; do clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || echo "$f"; done)
if [ -n "$bad" ]; then
    echo "Not clang-formatted (run clang-format -i):"; echo "$bad"; exit 1
fi
HOOK
chmod +x "$hook"
echo "pre-commit hook installed"
