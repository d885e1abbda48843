#!/usr/bin/env bash
# Crash safety of the mirror's tree update, short form: eight updates of a 30-leaf repository
# killed with SIGKILL at random moments (the update and its transfer tool together), each followed
# by an update that must reach exactly the repository an undisturbed update leaves.
# scripts/crash-mirror.sh holds the logic and runs the long form (100 kills) by hand.
source "$(dirname "$0")/script_lib.bash" "$@"

if [ -n "$RUN" ]; then
  # A killed process group is a POSIX matter; the Windows build is not covered.
  echo "skipped under Wine"
  exit 0
fi

bash "$(dirname "$0")/../../scripts/crash-mirror.sh" --kills 8 --leaves 30 \
  --nwhost "$NWHOST" --module "$MODULE" --tool "${EM_FILEDOWNLOAD:?EM_FILEDOWNLOAD names the transfer tool}" \
  --repotool "${EM_REPOTOOL:?EM_REPOTOOL names the tree builder}" --stub "${EM_SFX_STUB:?EM_SFX_STUB names the archive stub}" \
  --servers-env "${EM_TEST_SERVERS:?EM_TEST_SERVERS names the running test servers}" ||
  fail "an update killed at some moment did not recover (see the lines marked DIFF above)"
finish
