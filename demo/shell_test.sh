#!/bin/sh
# The shell of script/run --shell with commands from a pipe: its helpers tell the truth, a killed
# program comes back, and the shell's exit status is handed on.
#   shell_test.sh PATH-OF-tov_demo
"$1" --shell <<'EOF'
old=$(pid supervised_c)
[ -n "$old" ] || exit 10
kill -KILL "$old"
tries=0
until new=$(pid supervised_c) && [ -n "$new" ] && [ "$new" != "$old" ]; do
  tries=$((tries + 1))
  [ "$tries" -lt 200 ] || exit 11
  sleep 0.1
done
until notices | grep -q "new id supervised_c/$new"; do
  tries=$((tries + 1))
  [ "$tries" -lt 300 ] || exit 12
  sleep 0.1
done
# The file has its name before it has its lines.
until programs | grep -q "^ *$new  /usr/local/bin/supervised_c$"; do
  tries=$((tries + 1))
  [ "$tries" -lt 400 ] || exit 13
  sleep 0.1
done
logs 50 | grep -q "new pid: $new" || exit 14
[ -z "$(pid nobody)" ] || exit 15
exit 7
EOF
status=$?
[ "$status" -eq 7 ] && exit 0
echo "the shell ended with $status"
exit 1
