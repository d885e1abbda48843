#!/usr/bin/env bash
# What the module reports at load: the properties record and DetectHardware.
source "$(dirname "$0")/script_lib.bash" "$@"

expected='{"op":"properties","getProperties":1,"size":452,"name":"EM_MENDER","description":"Update filter module",'
out=$(env -u QV_SYSTEM bash -c "$(declare -f host); $(declare -p NWHOST MODULE_ARG RUN); host" <<<'{"op":"properties"}')
expect_line "$out" "${expected}\"detectHardware\":1,\"flags8\":3,\"flags24\":3,\"value32\":100,\"value48\":1}"

# The three appliance systems are recognised by their exact name only.
for system in xenserver oraclelinux ovmserver; do
  out=$(QV_SYSTEM=$system host <<<'{"op":"properties"}')
  expect_line "$out" "${expected}\"detectHardware\":0,\"flags8\":3,\"flags24\":3,\"value32\":100,\"value48\":1}"
done
for system in XenServer xenserver2 ""; do
  out=$(QV_SYSTEM=$system host <<<'{"op":"properties"}')
  expect_line "$out" "${expected}\"detectHardware\":1,\"flags8\":3,\"flags24\":3,\"value32\":100,\"value48\":1}"
done

finish
