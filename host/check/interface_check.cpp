// Every constant, record and function type of host/include/switch.h, written down once
// more and checked by the compiler. Nothing here runs.
//
// The file is compiled against host/include/switch.h and, where FreeSWITCH is installed,
// against its own headers too. One source file cannot include both, because they declare
// the same names. If both agree with the figures below, they agree with each other. A
// difference on either side stops the build and names the fact.
//
// Every addition to host/include/switch.h needs an addition here; a test reports what is
// missing.
#include <switch.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

// Some declarations carry attributes (format), which a type as argument cannot keep.
#pragma GCC diagnostic ignored "-Wignored-attributes"

#define VALUE(name, value) static_assert((name) == (value), #name " is not " #value)
#define SIZE(type, bytes) static_assert(sizeof(type) == (bytes), #type " has another size")
#define TYPE(name, ...) static_assert(std::is_same_v<name, __VA_ARGS__>, #name " is another type")
#define FUNCTION(name, ...) \
    static_assert(std::is_same_v<decltype(name), __VA_ARGS__>, #name " is declared otherwise")
#define FIELD(record, name, offset, ...)                                                    \
    static_assert(offsetof(record, name) == (offset), #record "." #name " lies elsewhere"); \
    static_assert(std::is_same_v<decltype(record::name), __VA_ARGS__>,                      \
                  #record "." #name " is of another type")

// A pointer that nothing here follows: a function of a codec, or a picture, whose type
// another release of the host names otherwise.
#define POINTER(record, name, offset)                                                       \
    static_assert(offsetof(record, name) == (offset), #record "." #name " lies elsewhere"); \
    static_assert(std::is_pointer_v<decltype(record::name)>, #record "." #name " is no pointer")

// A value that moves between releases: the build says what the release that it is for
// has, unless that is not known.
#ifdef QUORVANE_EXPECTED_EVENT_ALL
#define TEXT(value) #value
#define MOVING_VALUE(name, value)    \
    static_assert((name) == (value), \
                  #name " is not " TEXT(value) ", as in the release of QUORVANE_HOST_VERSION")
#else
#define MOVING_VALUE(name, value) static_assert((name) > 0)
#endif

// ---- constants --------------------------------------------------------------------

VALUE(SWITCH_API_VERSION, 5);
static_assert(static_cast<const char*>(SWITCH_EVENT_SUBCLASS_ANY) == nullptr);

SIZE(switch_bool_t, 4);
VALUE(SWITCH_FALSE, 0);
VALUE(SWITCH_TRUE, 1);

SIZE(switch_status_t, 4);
VALUE(SWITCH_STATUS_SUCCESS, 0);
VALUE(SWITCH_STATUS_FALSE, 1);
VALUE(SWITCH_STATUS_MEMERR, 6);
VALUE(SWITCH_STATUS_GENERR, 9);
VALUE(SWITCH_STATUS_INUSE, 10);
VALUE(SWITCH_STATUS_NOTFOUND, 14);
VALUE(SWITCH_STATUS_UNLOAD, 15);
VALUE(SWITCH_STATUS_NOUNLOAD, 16);
VALUE(SWITCH_STATUS_TERM, 21);

SIZE(switch_module_flag_enum_t, 4);
VALUE(SMODF_NONE, 0);
VALUE(SMODF_GLOBAL_SYMBOLS, 1 << 0);

SIZE(switch_module_interface_name_t, 4);
VALUE(SWITCH_APPLICATION_INTERFACE, 4);
VALUE(SWITCH_API_INTERFACE, 5);

SIZE(switch_log_level_t, 4);
VALUE(SWITCH_LOG_CONSOLE, 0);
VALUE(SWITCH_LOG_ALERT, 1);
VALUE(SWITCH_LOG_CRIT, 2);
VALUE(SWITCH_LOG_ERROR, 3);
VALUE(SWITCH_LOG_WARNING, 4);
VALUE(SWITCH_LOG_NOTICE, 5);
VALUE(SWITCH_LOG_INFO, 6);
VALUE(SWITCH_LOG_DEBUG, 7);
VALUE(SWITCH_LOG_DEBUG1, 101);
VALUE(SWITCH_LOG_DEBUG10, 110);

SIZE(switch_text_channel_t, 4);
VALUE(SWITCH_CHANNEL_ID_LOG, 0);
VALUE(SWITCH_CHANNEL_ID_LOG_CLEAN, 1);
VALUE(SWITCH_CHANNEL_ID_EVENT, 2);
VALUE(SWITCH_CHANNEL_ID_SESSION, 3);

SIZE(switch_event_types_t, 4);
VALUE(SWITCH_EVENT_CUSTOM, 0);
VALUE(SWITCH_EVENT_CLONE, 1);
VALUE(SWITCH_EVENT_CHANNEL_CREATE, 2);
VALUE(SWITCH_EVENT_CHANNEL_DESTROY, 3);
VALUE(SWITCH_EVENT_CHANNEL_STATE, 4);
VALUE(SWITCH_EVENT_CHANNEL_CALLSTATE, 5);
VALUE(SWITCH_EVENT_CHANNEL_ANSWER, 6);
VALUE(SWITCH_EVENT_CHANNEL_HANGUP, 7);
VALUE(SWITCH_EVENT_CHANNEL_HANGUP_COMPLETE, 8);
VALUE(SWITCH_EVENT_CHANNEL_EXECUTE, 9);
VALUE(SWITCH_EVENT_CHANNEL_EXECUTE_COMPLETE, 10);
VALUE(SWITCH_EVENT_CHANNEL_HOLD, 11);
VALUE(SWITCH_EVENT_CHANNEL_UNHOLD, 12);
VALUE(SWITCH_EVENT_CHANNEL_BRIDGE, 13);
VALUE(SWITCH_EVENT_CHANNEL_UNBRIDGE, 14);
VALUE(SWITCH_EVENT_CHANNEL_PROGRESS, 15);
VALUE(SWITCH_EVENT_CHANNEL_PROGRESS_MEDIA, 16);
VALUE(SWITCH_EVENT_CHANNEL_OUTGOING, 17);
VALUE(SWITCH_EVENT_CHANNEL_PARK, 18);
VALUE(SWITCH_EVENT_CHANNEL_UNPARK, 19);
VALUE(SWITCH_EVENT_CHANNEL_APPLICATION, 20);
VALUE(SWITCH_EVENT_CHANNEL_ORIGINATE, 21);
VALUE(SWITCH_EVENT_CHANNEL_UUID, 22);
VALUE(SWITCH_EVENT_API, 23);
VALUE(SWITCH_EVENT_MODULE_LOAD, 34);
VALUE(SWITCH_EVENT_MODULE_UNLOAD, 35);
VALUE(SWITCH_EVENT_HEARTBEAT, 50);
VALUE(SWITCH_EVENT_MEDIA_BUG_START, 82);
VALUE(SWITCH_EVENT_MEDIA_BUG_STOP, 83);
MOVING_VALUE(SWITCH_EVENT_ALL, QUORVANE_EXPECTED_EVENT_ALL);

SIZE(switch_priority_t, 4);
VALUE(SWITCH_PRIORITY_NORMAL, 0);
VALUE(SWITCH_PRIORITY_LOW, 1);
VALUE(SWITCH_PRIORITY_HIGH, 2);

SIZE(switch_channel_state_t, 4);
VALUE(CS_NEW, 0);
VALUE(CS_INIT, 1);
VALUE(CS_ROUTING, 2);
VALUE(CS_SOFT_EXECUTE, 3);
VALUE(CS_EXECUTE, 4);
VALUE(CS_EXCHANGE_MEDIA, 5);
VALUE(CS_PARK, 6);
VALUE(CS_CONSUME_MEDIA, 7);
VALUE(CS_HIBERNATE, 8);
VALUE(CS_RESET, 9);
VALUE(CS_HANGUP, 10);
VALUE(CS_REPORTING, 11);
VALUE(CS_DESTROY, 12);
VALUE(CS_NONE, 13);

SIZE(switch_channel_flag_t, 4);
VALUE(CF_ANSWERED, 1);
VALUE(CF_OUTBOUND, 2);
VALUE(CF_EARLY_MEDIA, 3);
MOVING_VALUE(CF_MEDIA_SET, QUORVANE_EXPECTED_CF_MEDIA_SET);

SIZE(switch_call_direction_t, 4);
VALUE(SWITCH_CALL_DIRECTION_INBOUND, 0);
VALUE(SWITCH_CALL_DIRECTION_OUTBOUND, 1);

SIZE(switch_call_cause_t, 4);
VALUE(SWITCH_CAUSE_NONE, 0);
VALUE(SWITCH_CAUSE_NORMAL_CLEARING, 16);
VALUE(SWITCH_CAUSE_USER_BUSY, 17);
VALUE(SWITCH_CAUSE_NO_ANSWER, 19);
VALUE(SWITCH_CAUSE_CALL_REJECTED, 21);
VALUE(SWITCH_CAUSE_NORMAL_UNSPECIFIED, 31);
VALUE(SWITCH_CAUSE_NORMAL_TEMPORARY_FAILURE, 41);
VALUE(SWITCH_CAUSE_INCOMPATIBLE_DESTINATION, 88);
VALUE(SWITCH_CAUSE_ORIGINATOR_CANCEL, 487);
VALUE(SWITCH_CAUSE_SYSTEM_SHUTDOWN, 701);
VALUE(SWITCH_CAUSE_MANAGER_REQUEST, 703);
VALUE(SWITCH_CAUSE_MEDIA_TIMEOUT, 804);

SIZE(switch_codec_type_t, 4);
VALUE(SWITCH_CODEC_TYPE_AUDIO, 0);

SIZE(switch_abc_type_t, 4);
VALUE(SWITCH_ABC_TYPE_INIT, 0);
VALUE(SWITCH_ABC_TYPE_READ, 1);
VALUE(SWITCH_ABC_TYPE_WRITE, 2);
VALUE(SWITCH_ABC_TYPE_WRITE_REPLACE, 3);
VALUE(SWITCH_ABC_TYPE_READ_REPLACE, 4);
VALUE(SWITCH_ABC_TYPE_READ_PING, 5);
VALUE(SWITCH_ABC_TYPE_TAP_NATIVE_READ, 6);
VALUE(SWITCH_ABC_TYPE_TAP_NATIVE_WRITE, 7);
VALUE(SWITCH_ABC_TYPE_CLOSE, 8);

SIZE(switch_media_bug_flag_enum_t, 4);
VALUE(SMBF_READ_STREAM, 1 << 0);
VALUE(SMBF_WRITE_STREAM, 1 << 1);
VALUE(SMBF_WRITE_REPLACE, 1 << 2);
VALUE(SMBF_READ_REPLACE, 1 << 3);
VALUE(SMBF_PRUNE, 1 << 9);

// ---- types ------------------------------------------------------------------------

TYPE(switch_size_t, uintptr_t);
TYPE(switch_time_t, int64_t);
TYPE(switch_payload_t, uint8_t);
TYPE(switch_module_flag_t, uint32_t);
TYPE(switch_media_bug_flag_t, uint32_t);

TYPE(switch_memory_pool_t, fspr_pool_t);
TYPE(switch_thread_rwlock_t, fspr_thread_rwlock_t);
TYPE(switch_mutex_t, fspr_thread_mutex_t);
TYPE(switch_core_session_t, switch_core_session);
TYPE(switch_channel_t, switch_channel);
TYPE(switch_media_bug_t, switch_media_bug);
TYPE(switch_event_node_t, switch_event_node);
TYPE(switch_event_t, switch_event);
TYPE(switch_event_header_t, switch_event_header);
TYPE(switch_frame_t, switch_frame);
TYPE(switch_codec_t, switch_codec);
TYPE(switch_codec_implementation_t, switch_codec_implementation);
TYPE(switch_channel_timetable_t, switch_channel_timetable);
TYPE(switch_stream_handle_t, switch_stream_handle);
TYPE(switch_application_interface_t, switch_application_interface);
TYPE(switch_api_interface_t, switch_api_interface);
TYPE(switch_loadable_module_interface_t, switch_loadable_module_interface);

TYPE(switch_module_load_t,
     switch_status_t (*)(switch_loadable_module_interface_t**, switch_memory_pool_t*));
TYPE(switch_module_runtime_t, switch_status_t (*)());
TYPE(switch_module_shutdown_t, switch_status_t (*)());
TYPE(switch_application_function_t, void (*)(switch_core_session_t*, const char*));
TYPE(switch_api_function_t,
     switch_status_t (*)(const char*, switch_core_session_t*, switch_stream_handle_t*));
TYPE(switch_stream_handle_read_function_t, uint8_t* (*)(switch_stream_handle_t*, int*));
TYPE(switch_stream_handle_write_function_t,
     switch_status_t (*)(switch_stream_handle_t*, const char*, ...));
TYPE(switch_stream_handle_raw_write_function_t,
     switch_status_t (*)(switch_stream_handle_t*, uint8_t*, switch_size_t));
TYPE(switch_event_callback_t, void (*)(switch_event_t*));
TYPE(switch_media_bug_callback_t, switch_bool_t (*)(switch_media_bug_t*, void*, switch_abc_type_t));

// ---- records ----------------------------------------------------------------------

SIZE(switch_loadable_module_function_table_t, 40);
FIELD(switch_loadable_module_function_table_t, switch_api_version, 0, int);
FIELD(switch_loadable_module_function_table_t, load, 8, switch_module_load_t);
FIELD(switch_loadable_module_function_table_t, shutdown, 16, switch_module_shutdown_t);
FIELD(switch_loadable_module_function_table_t, runtime, 24, switch_module_runtime_t);
FIELD(switch_loadable_module_function_table_t, flags, 32, switch_module_flag_t);

SIZE(switch_application_interface_t, 88);
FIELD(switch_application_interface_t, interface_name, 0, const char*);
FIELD(switch_application_interface_t, application_function, 8, switch_application_function_t);
FIELD(switch_application_interface_t, long_desc, 16, const char*);
FIELD(switch_application_interface_t, short_desc, 24, const char*);
FIELD(switch_application_interface_t, syntax, 32, const char*);
FIELD(switch_application_interface_t, flags, 40, uint32_t);
FIELD(switch_application_interface_t, rwlock, 48, switch_thread_rwlock_t*);
FIELD(switch_application_interface_t, refs, 56, int);
FIELD(switch_application_interface_t, reflock, 64, switch_mutex_t*);
FIELD(switch_application_interface_t, parent, 72, switch_loadable_module_interface_t*);
FIELD(switch_application_interface_t, next, 80, switch_application_interface_t*);

SIZE(switch_stream_handle_t, 80);
FIELD(switch_stream_handle_t, read_function, 0, switch_stream_handle_read_function_t);
FIELD(switch_stream_handle_t, write_function, 8, switch_stream_handle_write_function_t);
FIELD(switch_stream_handle_t, raw_write_function, 16, switch_stream_handle_raw_write_function_t);
FIELD(switch_stream_handle_t, data, 24, void*);
FIELD(switch_stream_handle_t, end, 32, void*);
FIELD(switch_stream_handle_t, data_size, 40, switch_size_t);
FIELD(switch_stream_handle_t, data_len, 48, switch_size_t);
FIELD(switch_stream_handle_t, alloc_len, 56, switch_size_t);
FIELD(switch_stream_handle_t, alloc_chunk, 64, switch_size_t);
FIELD(switch_stream_handle_t, param_event, 72, switch_event_t*);

SIZE(switch_api_interface_t, 72);
FIELD(switch_api_interface_t, interface_name, 0, const char*);
FIELD(switch_api_interface_t, desc, 8, const char*);
FIELD(switch_api_interface_t, function, 16, switch_api_function_t);
FIELD(switch_api_interface_t, syntax, 24, const char*);
FIELD(switch_api_interface_t, rwlock, 32, switch_thread_rwlock_t*);
FIELD(switch_api_interface_t, refs, 40, int);
FIELD(switch_api_interface_t, reflock, 48, switch_mutex_t*);
FIELD(switch_api_interface_t, parent, 56, switch_loadable_module_interface_t*);
FIELD(switch_api_interface_t, next, 64, switch_api_interface_t*);

SIZE(switch_event_header_t, 48);
FIELD(switch_event_header_t, name, 0, char*);
FIELD(switch_event_header_t, value, 8, char*);
FIELD(switch_event_header_t, array, 16, char**);
FIELD(switch_event_header_t, idx, 24, int);
FIELD(switch_event_header_t, hash, 32, unsigned long);
FIELD(switch_event_header_t, next, 40, switch_event_header_t*);

SIZE(switch_event_t, 88);
FIELD(switch_event_t, event_id, 0, switch_event_types_t);
FIELD(switch_event_t, priority, 4, switch_priority_t);
FIELD(switch_event_t, owner, 8, char*);
FIELD(switch_event_t, subclass_name, 16, char*);
FIELD(switch_event_t, headers, 24, switch_event_header_t*);
FIELD(switch_event_t, last_header, 32, switch_event_header_t*);
FIELD(switch_event_t, body, 40, char*);
FIELD(switch_event_t, bind_user_data, 48, void*);
FIELD(switch_event_t, event_user_data, 56, void*);
FIELD(switch_event_t, key, 64, unsigned long);
FIELD(switch_event_t, next, 72, switch_event_t*);
FIELD(switch_event_t, flags, 80, int);

SIZE(switch_channel_timetable_t, 96);
FIELD(switch_channel_timetable_t, profile_created, 0, switch_time_t);
FIELD(switch_channel_timetable_t, created, 8, switch_time_t);
FIELD(switch_channel_timetable_t, answered, 16, switch_time_t);
FIELD(switch_channel_timetable_t, progress, 24, switch_time_t);
FIELD(switch_channel_timetable_t, progress_media, 32, switch_time_t);
FIELD(switch_channel_timetable_t, hungup, 40, switch_time_t);
FIELD(switch_channel_timetable_t, transferred, 48, switch_time_t);
FIELD(switch_channel_timetable_t, resurrected, 56, switch_time_t);
FIELD(switch_channel_timetable_t, bridged, 64, switch_time_t);
FIELD(switch_channel_timetable_t, last_hold, 72, switch_time_t);
FIELD(switch_channel_timetable_t, hold_accum, 80, switch_time_t);
FIELD(switch_channel_timetable_t, next, 88, switch_channel_timetable_t*);

SIZE(switch_codec_implementation_t, 144);
FIELD(switch_codec_implementation_t, codec_type, 0, switch_codec_type_t);
FIELD(switch_codec_implementation_t, ianacode, 4, switch_payload_t);
FIELD(switch_codec_implementation_t, iananame, 8, char*);
FIELD(switch_codec_implementation_t, fmtp, 16, char*);
FIELD(switch_codec_implementation_t, samples_per_second, 24, uint32_t);
FIELD(switch_codec_implementation_t, actual_samples_per_second, 28, uint32_t);
FIELD(switch_codec_implementation_t, bits_per_second, 32, int);
FIELD(switch_codec_implementation_t, microseconds_per_packet, 36, int);
FIELD(switch_codec_implementation_t, samples_per_packet, 40, uint32_t);
FIELD(switch_codec_implementation_t, decoded_bytes_per_packet, 44, uint32_t);
FIELD(switch_codec_implementation_t, encoded_bytes_per_packet, 48, uint32_t);
FIELD(switch_codec_implementation_t, number_of_channels, 52, uint8_t);
FIELD(switch_codec_implementation_t, codec_frames_per_packet, 56, int);
POINTER(switch_codec_implementation_t, init, 64);
POINTER(switch_codec_implementation_t, encode, 72);
POINTER(switch_codec_implementation_t, decode, 80);
POINTER(switch_codec_implementation_t, encode_video, 88);
POINTER(switch_codec_implementation_t, decode_video, 96);
POINTER(switch_codec_implementation_t, codec_control, 104);
POINTER(switch_codec_implementation_t, destroy, 112);
FIELD(switch_codec_implementation_t, codec_id, 120, uint32_t);
FIELD(switch_codec_implementation_t, impl_id, 124, uint32_t);
FIELD(switch_codec_implementation_t, modname, 128, char*);
FIELD(switch_codec_implementation_t, next, 136, switch_codec_implementation_t*);

SIZE(switch_codec_t, 96);
FIELD(switch_codec_t, codec_interface, 0, struct switch_codec_interface*);
FIELD(switch_codec_t, implementation, 8, const switch_codec_implementation_t*);
FIELD(switch_codec_t, fmtp_in, 16, char*);
FIELD(switch_codec_t, fmtp_out, 24, char*);
FIELD(switch_codec_t, flags, 32, uint32_t);
FIELD(switch_codec_t, memory_pool, 40, switch_memory_pool_t*);
FIELD(switch_codec_t, private_info, 48, void*);
FIELD(switch_codec_t, agreed_pt, 56, switch_payload_t);
FIELD(switch_codec_t, mutex, 64, switch_mutex_t*);
FIELD(switch_codec_t, next, 72, switch_codec_t*);
FIELD(switch_codec_t, session, 80, switch_core_session_t*);
FIELD(switch_codec_t, cur_frame, 88, switch_frame_t*);

SIZE(switch_frame_geometry_t, 28);
FIELD(switch_frame_geometry_t, w, 0, int32_t);
FIELD(switch_frame_geometry_t, h, 4, int32_t);
FIELD(switch_frame_geometry_t, x, 8, int32_t);
FIELD(switch_frame_geometry_t, y, 12, int32_t);
FIELD(switch_frame_geometry_t, z, 16, int32_t);
FIELD(switch_frame_geometry_t, M, 20, int32_t);
FIELD(switch_frame_geometry_t, X, 24, int32_t);

SIZE(switch_frame_t, 152);
FIELD(switch_frame_t, codec, 0, switch_codec_t*);
FIELD(switch_frame_t, source, 8, const char*);
FIELD(switch_frame_t, packet, 16, void*);
FIELD(switch_frame_t, packetlen, 24, uint32_t);
FIELD(switch_frame_t, extra_data, 32, void*);
FIELD(switch_frame_t, data, 40, void*);
FIELD(switch_frame_t, datalen, 48, uint32_t);
FIELD(switch_frame_t, buflen, 52, uint32_t);
FIELD(switch_frame_t, samples, 56, uint32_t);
FIELD(switch_frame_t, rate, 60, uint32_t);
FIELD(switch_frame_t, channels, 64, uint32_t);
FIELD(switch_frame_t, payload, 68, switch_payload_t);
FIELD(switch_frame_t, timestamp, 72, uint32_t);
FIELD(switch_frame_t, seq, 76, uint16_t);
FIELD(switch_frame_t, ssrc, 80, uint32_t);
FIELD(switch_frame_t, m, 84, switch_bool_t);
FIELD(switch_frame_t, flags, 88, uint32_t);
FIELD(switch_frame_t, user_data, 96, void*);
FIELD(switch_frame_t, pmap, 104, struct payload_map_s*);
POINTER(switch_frame_t, img, 112);
FIELD(switch_frame_t, geometry, 120, switch_frame_geometry_t);

// ---- functions --------------------------------------------------------------------

FUNCTION(switch_loadable_module_create_module_interface,
         switch_loadable_module_interface_t*(switch_memory_pool_t*, const char*));
FUNCTION(switch_loadable_module_create_interface,
         void*(switch_loadable_module_interface_t*, switch_module_interface_name_t));
FUNCTION(switch_console_set_complete, switch_status_t(const char*));
FUNCTION(switch_log_printf, void(switch_text_channel_t, const char*, const char*, int, const char*,
                                 switch_log_level_t, const char*, ...));
FUNCTION(switch_event_bind_removable,
         switch_status_t(const char*, switch_event_types_t, const char*, switch_event_callback_t,
                         void*, switch_event_node_t**));
FUNCTION(switch_event_unbind, switch_status_t(switch_event_node_t**));
FUNCTION(switch_event_serialize, switch_status_t(switch_event_t*, char**, switch_bool_t));
FUNCTION(switch_event_get_header_idx, char*(switch_event_t*, const char*, int));
FUNCTION(switch_core_session_get_channel, switch_channel_t*(switch_core_session_t*));
FUNCTION(switch_core_session_get_uuid, char*(switch_core_session_t*));
FUNCTION(switch_core_session_perform_locate,
         switch_core_session_t*(const char*, const char*, const char*, int));
FUNCTION(switch_core_session_rwunlock, void(switch_core_session_t*));
FUNCTION(switch_channel_get_timetable, switch_channel_timetable_t*(switch_channel_t*));
FUNCTION(switch_channel_get_variable_dup,
         const char*(switch_channel_t*, const char*, switch_bool_t, int));
FUNCTION(switch_channel_direction, switch_call_direction_t(switch_channel_t*));
FUNCTION(switch_channel_test_ready, int(switch_channel_t*, switch_bool_t, switch_bool_t));
FUNCTION(switch_channel_test_flag, uint32_t(switch_channel_t*, switch_channel_flag_t));
FUNCTION(switch_channel_get_state, switch_channel_state_t(switch_channel_t*));
FUNCTION(switch_channel_get_cause, switch_call_cause_t(switch_channel_t*));
FUNCTION(switch_core_media_bug_add,
         switch_status_t(switch_core_session_t*, const char*, const char*,
                         switch_media_bug_callback_t, void*, time_t, switch_media_bug_flag_t,
                         switch_media_bug_t**));
FUNCTION(switch_core_media_bug_get_session, switch_core_session_t*(switch_media_bug_t*));
FUNCTION(switch_core_media_bug_get_read_replace_frame, switch_frame_t*(switch_media_bug_t*));
FUNCTION(switch_core_media_bug_get_write_replace_frame, switch_frame_t*(switch_media_bug_t*));
FUNCTION(switch_is_number, switch_bool_t(const char*));
FUNCTION(switch_time_now, switch_time_t());

// ---- macros that declare functions ------------------------------------------------

SWITCH_MODULE_LOAD_FUNCTION(declared_load);
SWITCH_MODULE_RUNTIME_FUNCTION(declared_runtime);
SWITCH_MODULE_SHUTDOWN_FUNCTION(declared_shutdown);
[[maybe_unused]] SWITCH_STANDARD_APP(declared_app) {
    static_cast<void>(session);
    static_cast<void>(data);
}
[[maybe_unused]] SWITCH_STANDARD_API(declared_api) {
    static_cast<void>(cmd);
    static_cast<void>(session);
    static_cast<void>(stream);
    return SWITCH_STATUS_SUCCESS;
}
// These two macros are valid only in declarations.
SWITCH_DECLARE(void) declared_by_host();
extern SWITCH_MOD_DECLARE_DATA switch_loadable_module_function_table_t declared_data;

TYPE(decltype(&declared_load), switch_module_load_t);
TYPE(decltype(&declared_runtime), switch_module_runtime_t);
TYPE(decltype(&declared_shutdown), switch_module_shutdown_t);
TYPE(decltype(&declared_app), switch_application_function_t);
TYPE(decltype(&declared_api), switch_api_function_t);
FUNCTION(declared_by_host, void());
