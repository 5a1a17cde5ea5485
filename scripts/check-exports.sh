#!/usr/bin/env bash
# Fails when the shared library exports a symbol outside the public API: the
# classes, functions and constants that the installed headers mark
# QEL_EXPORT, the C version symbols, and the version node itself.
#
#   scripts/check-exports.sh path/to/libqelmaps.so.1
set -euo pipefail

lib=$1
classes='Object|Image|NotificationCenter|RunLoop|ScheduledCall|FormatArgument|InternalInconsistencyException'
classes+='|QELBroadcastMapsV1|QELBroadcastMapsResolution|QELBroadcastMapsHost|QELBroadcastMapsStatus|QELBroadcastMapsStats|core::(QELConfiguration|QELHostname|SkelionService|Backoff|ReconnectPolicy)'
allowed="^(typeinfo for |typeinfo name for |vtable for |VTT for )?qel::($classes)\b"
allowed+="|^qel::(describe|floatValue|stringWithFormatArgs|operator==)[[(]"
allowed+="|^qel::(internal::)?QELBroadcastMaps[A-Za-z]+Notification$"
allowed+="|^(QELMapsVersionString|QELMapsVersionNumber|QELMAPS_1)$"
allowed+="|^qelmaps_[a-z0-9_]+$"

symbols=$(nm -D --defined-only -C "$lib" | cut -d' ' -f3- | sed 's/@@\?QELMAPS_1$//')
count=$(wc -l <<<"$symbols")
if [ "$count" -lt 20 ]; then
  echo "check-exports: only $count symbols in $lib; is it the shared library?" >&2
  exit 1
fi
unexpected=$(grep -Ev "$allowed" <<<"$symbols" || true)
if [ -n "$unexpected" ]; then
  echo "check-exports: $lib exports symbols outside the public API:" >&2
  echo "$unexpected" >&2
  exit 1
fi
echo "check-exports: $count symbols, all public API"
