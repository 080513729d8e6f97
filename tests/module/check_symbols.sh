#!/usr/bin/env bash
# Checks which symbols the built module imports from the host, and which it exports.
#
#     check_symbols.sh PATH/mod_quorvane.so
set -u
module=$1
. "$(dirname "${BASH_SOURCE[0]}")/../support/checks.sh"

# The host functions that the module may use. Any other function would restrict it to hosts that
# have that function.
allowed='
switch_channel_direction
switch_channel_get_cause
switch_channel_get_state
switch_channel_get_timetable
switch_channel_get_variable_dup
switch_channel_test_flag
switch_channel_test_ready
switch_console_set_complete
switch_core_media_bug_add
switch_core_media_bug_get_read_replace_frame
switch_core_media_bug_get_session
switch_core_media_bug_get_write_replace_frame
switch_core_session_get_channel
switch_core_session_get_uuid
switch_core_session_perform_locate
switch_core_session_rwunlock
switch_event_bind_removable
switch_event_get_header_idx
switch_event_serialize
switch_event_unbind
switch_is_number
switch_loadable_module_create_interface
switch_loadable_module_create_module_interface
switch_log_printf
switch_time_now
'

used=$(nm --dynamic --undefined-only --format=posix "$module" | awk '{ print $1 }' |
    sed 's/@.*//' | grep '^switch_' | sort)
[ -n "$used" ] || fail "no host function is used: is this the module?"
for name in $used; do
    grep -qx "$name" <<< "$allowed" || fail "uses the host function $name"
done

shown=$(nm --dynamic --defined-only --format=posix "$module" | awk '{ print $1 }' |
    sed 's/@.*//' | sort)
[ "$shown" = mod_quorvane_module_interface ] ||
    fail "exports $(echo $shown), instead of mod_quorvane_module_interface alone"

# The dynamic linker never unmaps an object with a unique symbol.
unique=$(readelf --dyn-syms --wide "$module" | awk '$5 == "UNIQUE" { print $8 }')
[ -z "$unique" ] || fail "has unique symbols: $(echo $unique)"

dynamic=$(readelf --dynamic --wide "$module")
grep -qi 'freeswitch' <<< "$dynamic" && fail "is linked to the host's library"

[ "$failures" -eq 0 ] && echo "symbols of $module are as they should be"
exit "$((failures > 0))"
