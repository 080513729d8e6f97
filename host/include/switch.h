// The part of the FreeSWITCH interface that the module uses, declared here so that
// the module builds without the host's development files. Names, values and record
// layouts are those of FreeSWITCH 1.10 and 1.11 on 64-bit Linux. Everything the module
// does not touch is left out.
//
// Compiles as C11 and as C++17. A module built with the real switch.h sees the same
// names. The module may use what is declared here, and nothing else.
//
// Two values differ between releases, so a build is for one release and may give them:
//   QUORVANE_SWITCH_EVENT_ALL  90 in 1.10.0, 91 in 1.10.2, 92 in 1.10.7 to 1.10.12, 93 in 1.11
//   QUORVANE_CF_MEDIA_SET      54 up to 1.10.2, 55 after
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#ifndef QUORVANE_SWITCH_EVENT_ALL
#define QUORVANE_SWITCH_EVENT_ALL 92
#endif
#ifndef QUORVANE_CF_MEDIA_SET
#define QUORVANE_CF_MEDIA_SET 55
#endif

// Functions that the host provides, and data that the module offers to the host,
// stay visible in a build that hides its symbols.
#define SWITCH_DECLARE(type) __attribute__((visibility("default"))) type
#define SWITCH_MOD_DECLARE_DATA __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

// ---- plain types ------------------------------------------------------------------

typedef uintptr_t switch_size_t;
typedef int64_t switch_time_t;  // microseconds since 1970
typedef uint8_t switch_payload_t;

typedef enum { SWITCH_FALSE = 0, SWITCH_TRUE = 1 } switch_bool_t;

typedef enum {
    SWITCH_STATUS_SUCCESS = 0,
    SWITCH_STATUS_FALSE = 1,
    SWITCH_STATUS_MEMERR = 6,
    SWITCH_STATUS_GENERR = 9,
    SWITCH_STATUS_INUSE = 10,
    SWITCH_STATUS_NOTFOUND = 14,
    SWITCH_STATUS_UNLOAD = 15,
    SWITCH_STATUS_NOUNLOAD = 16,
    SWITCH_STATUS_TERM = 21
} switch_status_t;

// ---- records that the module only passes on ---------------------------------------

typedef struct fspr_pool_t switch_memory_pool_t;
typedef struct fspr_thread_rwlock_t switch_thread_rwlock_t;
typedef struct fspr_thread_mutex_t switch_mutex_t;
typedef struct switch_core_session switch_core_session_t;
typedef struct switch_channel switch_channel_t;
typedef struct switch_media_bug switch_media_bug_t;
typedef struct switch_event_node switch_event_node_t;
typedef struct switch_event switch_event_t;
typedef struct switch_frame switch_frame_t;
typedef struct switch_codec switch_codec_t;
typedef struct switch_codec_implementation switch_codec_implementation_t;
typedef struct switch_channel_timetable switch_channel_timetable_t;
typedef struct switch_stream_handle switch_stream_handle_t;
typedef struct switch_application_interface switch_application_interface_t;
typedef struct switch_api_interface switch_api_interface_t;
typedef struct switch_loadable_module_interface switch_loadable_module_interface_t;

// ---- modules ----------------------------------------------------------------------

#define SWITCH_API_VERSION 5

#define SWITCH_MODULE_LOAD_FUNCTION(name)                                       \
    switch_status_t name(switch_loadable_module_interface_t** module_interface, \
                         switch_memory_pool_t* pool)
#define SWITCH_MODULE_RUNTIME_FUNCTION(name) switch_status_t name(void)
#define SWITCH_MODULE_SHUTDOWN_FUNCTION(name) switch_status_t name(void)

typedef SWITCH_MODULE_LOAD_FUNCTION((*switch_module_load_t));
typedef SWITCH_MODULE_RUNTIME_FUNCTION((*switch_module_runtime_t));
typedef SWITCH_MODULE_SHUTDOWN_FUNCTION((*switch_module_shutdown_t));

typedef enum {
    SMODF_NONE = 0,
    SMODF_GLOBAL_SYMBOLS = 1 << 0  // the host opens the object with RTLD_GLOBAL
} switch_module_flag_enum_t;
typedef uint32_t switch_module_flag_t;

// What the host looks up in the object file, as NAME_module_interface.
typedef struct switch_loadable_module_function_table {
    int switch_api_version;
    switch_module_load_t load;
    switch_module_shutdown_t shutdown;
    switch_module_runtime_t runtime;
    switch_module_flag_t flags;
} switch_loadable_module_function_table_t;

typedef enum {
    SWITCH_APPLICATION_INTERFACE = 4,
    SWITCH_API_INTERFACE = 5
} switch_module_interface_name_t;

SWITCH_DECLARE(switch_loadable_module_interface_t*)
switch_loadable_module_create_module_interface(switch_memory_pool_t* pool, const char* name);

// The new interface is zero-filled, hangs in its module's list and is owned by it;
// its type follows from the interface name.
SWITCH_DECLARE(void*)
switch_loadable_module_create_interface(switch_loadable_module_interface_t* mod,
                                        switch_module_interface_name_t iname);

// ---- applications -----------------------------------------------------------------

#define SWITCH_STANDARD_APP(name) static void name(switch_core_session_t* session, const char* data)

typedef void (*switch_application_function_t)(switch_core_session_t*, const char*);

struct switch_application_interface {
    const char* interface_name;
    switch_application_function_t application_function;
    const char* long_desc;
    const char* short_desc;
    const char* syntax;
    uint32_t flags;
    switch_thread_rwlock_t* rwlock;
    int refs;
    switch_mutex_t* reflock;
    switch_loadable_module_interface_t* parent;
    struct switch_application_interface* next;
};

// ---- API commands -----------------------------------------------------------------

#define SWITCH_STANDARD_API(name)                                                \
    static switch_status_t name(const char* cmd, switch_core_session_t* session, \
                                switch_stream_handle_t* stream)

typedef uint8_t* (*switch_stream_handle_read_function_t)(switch_stream_handle_t* handle, int* len);
typedef switch_status_t (*switch_stream_handle_write_function_t)(switch_stream_handle_t* handle,
                                                                 const char* fmt, ...);
typedef switch_status_t (*switch_stream_handle_raw_write_function_t)(switch_stream_handle_t* handle,
                                                                     uint8_t* data,
                                                                     switch_size_t datalen);
typedef switch_status_t (*switch_api_function_t)(const char* cmd, switch_core_session_t* session,
                                                 switch_stream_handle_t* stream);

// Where the answer of an API command goes.
struct switch_stream_handle {
    switch_stream_handle_read_function_t read_function;
    switch_stream_handle_write_function_t write_function;
    switch_stream_handle_raw_write_function_t raw_write_function;
    void* data;
    void* end;
    switch_size_t data_size;
    switch_size_t data_len;
    switch_size_t alloc_len;
    switch_size_t alloc_chunk;
    switch_event_t* param_event;
};

struct switch_api_interface {
    const char* interface_name;
    const char* desc;
    switch_api_function_t function;
    const char* syntax;
    switch_thread_rwlock_t* rwlock;
    int refs;
    switch_mutex_t* reflock;
    switch_loadable_module_interface_t* parent;
    struct switch_api_interface* next;
};

// Takes "add WORDS", where "::" introduces a choice of words or a list of the host's.
SWITCH_DECLARE(switch_status_t) switch_console_set_complete(const char* string);

// ---- log --------------------------------------------------------------------------

typedef enum {
    SWITCH_LOG_CONSOLE = 0,
    SWITCH_LOG_ALERT = 1,
    SWITCH_LOG_CRIT = 2,
    SWITCH_LOG_ERROR = 3,
    SWITCH_LOG_WARNING = 4,
    SWITCH_LOG_NOTICE = 5,
    SWITCH_LOG_INFO = 6,
    SWITCH_LOG_DEBUG = 7,
    SWITCH_LOG_DEBUG1 = 101,
    SWITCH_LOG_DEBUG10 = 110
} switch_log_level_t;

typedef enum {
    SWITCH_CHANNEL_ID_LOG = 0,
    SWITCH_CHANNEL_ID_LOG_CLEAN = 1,
    SWITCH_CHANNEL_ID_EVENT = 2,
    SWITCH_CHANNEL_ID_SESSION = 3  // the user data is the session, not a text
} switch_text_channel_t;

SWITCH_DECLARE(void)
switch_log_printf(switch_text_channel_t channel, const char* file, const char* func, int line,
                  const char* userdata, switch_log_level_t level, const char* fmt, ...)
    __attribute__((format(printf, 7, 8)));

// ---- events -----------------------------------------------------------------------

#define SWITCH_EVENT_SUBCLASS_ANY NULL

// Ids 2 to 22 are the channel events; of the others only a few are named.
typedef enum {
    SWITCH_EVENT_CUSTOM = 0,
    SWITCH_EVENT_CLONE = 1,
    SWITCH_EVENT_CHANNEL_CREATE = 2,
    SWITCH_EVENT_CHANNEL_DESTROY = 3,
    SWITCH_EVENT_CHANNEL_STATE = 4,
    SWITCH_EVENT_CHANNEL_CALLSTATE = 5,
    SWITCH_EVENT_CHANNEL_ANSWER = 6,
    SWITCH_EVENT_CHANNEL_HANGUP = 7,
    SWITCH_EVENT_CHANNEL_HANGUP_COMPLETE = 8,
    SWITCH_EVENT_CHANNEL_EXECUTE = 9,
    SWITCH_EVENT_CHANNEL_EXECUTE_COMPLETE = 10,
    SWITCH_EVENT_CHANNEL_HOLD = 11,
    SWITCH_EVENT_CHANNEL_UNHOLD = 12,
    SWITCH_EVENT_CHANNEL_BRIDGE = 13,
    SWITCH_EVENT_CHANNEL_UNBRIDGE = 14,
    SWITCH_EVENT_CHANNEL_PROGRESS = 15,
    SWITCH_EVENT_CHANNEL_PROGRESS_MEDIA = 16,
    SWITCH_EVENT_CHANNEL_OUTGOING = 17,
    SWITCH_EVENT_CHANNEL_PARK = 18,
    SWITCH_EVENT_CHANNEL_UNPARK = 19,
    SWITCH_EVENT_CHANNEL_APPLICATION = 20,
    SWITCH_EVENT_CHANNEL_ORIGINATE = 21,
    SWITCH_EVENT_CHANNEL_UUID = 22,
    SWITCH_EVENT_API = 23,
    SWITCH_EVENT_MODULE_LOAD = 34,
    SWITCH_EVENT_MODULE_UNLOAD = 35,
    SWITCH_EVENT_HEARTBEAT = 50,
    SWITCH_EVENT_MEDIA_BUG_START = 82,
    SWITCH_EVENT_MEDIA_BUG_STOP = 83,
    SWITCH_EVENT_ALL = QUORVANE_SWITCH_EVENT_ALL
} switch_event_types_t;

typedef enum {
    SWITCH_PRIORITY_NORMAL = 0,
    SWITCH_PRIORITY_LOW = 1,
    SWITCH_PRIORITY_HIGH = 2
} switch_priority_t;

typedef struct switch_event_header switch_event_header_t;

struct switch_event_header {
    char* name;
    char* value;
    char** array;
    int idx;
    unsigned long hash;
    struct switch_event_header* next;
};

struct switch_event {
    switch_event_types_t event_id;
    switch_priority_t priority;
    char* owner;
    char* subclass_name;
    switch_event_header_t* headers;
    switch_event_header_t* last_header;
    char* body;
    void* bind_user_data;
    void* event_user_data;
    unsigned long key;
    struct switch_event* next;
    int flags;
};

typedef void (*switch_event_callback_t)(switch_event_t*);

SWITCH_DECLARE(switch_status_t)
switch_event_bind_removable(const char* id, switch_event_types_t event, const char* subclass_name,
                            switch_event_callback_t callback, void* user_data,
                            switch_event_node_t** node);

// Sets the node to null; no callback runs any more once it has returned.
SWITCH_DECLARE(switch_status_t) switch_event_unbind(switch_event_node_t** node);

// The caller releases *str with free().
SWITCH_DECLARE(switch_status_t)
switch_event_serialize(switch_event_t* event, char** str, switch_bool_t encode);

// The value stays the event's; null if there is none. Index -1 means the whole value.
SWITCH_DECLARE(char*)
switch_event_get_header_idx(switch_event_t* event, const char* header_name, int idx);

// ---- sessions and channels --------------------------------------------------------

typedef enum {
    CS_NEW = 0,
    CS_INIT = 1,
    CS_ROUTING = 2,
    CS_SOFT_EXECUTE = 3,
    CS_EXECUTE = 4,
    CS_EXCHANGE_MEDIA = 5,
    CS_PARK = 6,
    CS_CONSUME_MEDIA = 7,
    CS_HIBERNATE = 8,
    CS_RESET = 9,
    CS_HANGUP = 10,  // from here on the call is over
    CS_REPORTING = 11,
    CS_DESTROY = 12,
    CS_NONE = 13
} switch_channel_state_t;

typedef enum {
    CF_ANSWERED = 1,
    CF_OUTBOUND = 2,
    CF_EARLY_MEDIA = 3,
    CF_MEDIA_SET = QUORVANE_CF_MEDIA_SET  // the session has its read codec
} switch_channel_flag_t;

typedef enum {
    SWITCH_CALL_DIRECTION_INBOUND = 0,
    SWITCH_CALL_DIRECTION_OUTBOUND = 1
} switch_call_direction_t;

typedef enum {
    SWITCH_CAUSE_NONE = 0,
    SWITCH_CAUSE_NORMAL_CLEARING = 16,
    SWITCH_CAUSE_USER_BUSY = 17,
    SWITCH_CAUSE_NO_ANSWER = 19,
    SWITCH_CAUSE_CALL_REJECTED = 21,
    SWITCH_CAUSE_NORMAL_UNSPECIFIED = 31,
    SWITCH_CAUSE_NORMAL_TEMPORARY_FAILURE = 41,
    SWITCH_CAUSE_INCOMPATIBLE_DESTINATION = 88,
    SWITCH_CAUSE_ORIGINATOR_CANCEL = 487,
    SWITCH_CAUSE_SYSTEM_SHUTDOWN = 701,
    SWITCH_CAUSE_MANAGER_REQUEST = 703,
    SWITCH_CAUSE_MEDIA_TIMEOUT = 804
} switch_call_cause_t;

// When the channel reached each step of its life; 0 where it has not.
struct switch_channel_timetable {
    switch_time_t profile_created;
    switch_time_t created;
    switch_time_t answered;
    switch_time_t progress;
    switch_time_t progress_media;
    switch_time_t hungup;
    switch_time_t transferred;
    switch_time_t resurrected;
    switch_time_t bridged;
    switch_time_t last_hold;
    switch_time_t hold_accum;
    struct switch_channel_timetable* next;
};

SWITCH_DECLARE(switch_channel_t*) switch_core_session_get_channel(switch_core_session_t* session);
SWITCH_DECLARE(char*) switch_core_session_get_uuid(switch_core_session_t* session);

// Null when no live session has this UUID; otherwise the session under its read lock,
// to be released with switch_core_session_rwunlock.
SWITCH_DECLARE(switch_core_session_t*)
switch_core_session_perform_locate(const char* uuid_str, const char* file, const char* func,
                                   int line);
SWITCH_DECLARE(void) switch_core_session_rwunlock(switch_core_session_t* session);

SWITCH_DECLARE(switch_channel_timetable_t*)
switch_channel_get_timetable(switch_channel_t* channel);

// Without dup the text belongs to the channel and holds until the variable changes.
SWITCH_DECLARE(const char*)
switch_channel_get_variable_dup(switch_channel_t* channel, const char* varname, switch_bool_t dup,
                                int idx);
SWITCH_DECLARE(switch_call_direction_t) switch_channel_direction(switch_channel_t* channel);
SWITCH_DECLARE(int)
switch_channel_test_ready(switch_channel_t* channel, switch_bool_t check_ready,
                          switch_bool_t check_media);
SWITCH_DECLARE(uint32_t)
switch_channel_test_flag(switch_channel_t* channel, switch_channel_flag_t flag);
SWITCH_DECLARE(switch_channel_state_t) switch_channel_get_state(switch_channel_t* channel);
SWITCH_DECLARE(switch_call_cause_t) switch_channel_get_cause(switch_channel_t* channel);

// ---- media ------------------------------------------------------------------------

typedef enum { SWITCH_CODEC_TYPE_AUDIO = 0 } switch_codec_type_t;

// The functions of a codec are not called through these records here: their slots
// keep the layout.
typedef void (*switch_codec_slot_t)(void);

struct switch_codec_implementation {
    switch_codec_type_t codec_type;
    switch_payload_t ianacode;
    char* iananame;
    char* fmtp;
    uint32_t samples_per_second;
    uint32_t actual_samples_per_second;
    int bits_per_second;
    int microseconds_per_packet;
    uint32_t samples_per_packet;
    uint32_t decoded_bytes_per_packet;
    uint32_t encoded_bytes_per_packet;
    uint8_t number_of_channels;
    int codec_frames_per_packet;
    switch_codec_slot_t init;
    switch_codec_slot_t encode;
    switch_codec_slot_t decode;
    switch_codec_slot_t encode_video;
    switch_codec_slot_t decode_video;
    switch_codec_slot_t codec_control;
    switch_codec_slot_t destroy;
    uint32_t codec_id;
    uint32_t impl_id;
    char* modname;
    struct switch_codec_implementation* next;
};

struct switch_codec {
    struct switch_codec_interface* codec_interface;
    const switch_codec_implementation_t* implementation;
    char* fmtp_in;
    char* fmtp_out;
    uint32_t flags;
    switch_memory_pool_t* memory_pool;
    void* private_info;
    switch_payload_t agreed_pt;
    switch_mutex_t* mutex;
    struct switch_codec* next;
    switch_core_session_t* session;
    switch_frame_t* cur_frame;
};

typedef struct switch_frame_geometry {
    int32_t w;
    int32_t h;
    int32_t x;
    int32_t y;
    int32_t z;
    int32_t M;
    int32_t X;
} switch_frame_geometry_t;

// One piece of media; for audio `data` holds `datalen` bytes of samples.
struct switch_frame {
    switch_codec_t* codec;
    const char* source;
    void* packet;
    uint32_t packetlen;
    void* extra_data;
    void* data;
    uint32_t datalen;
    uint32_t buflen;
    uint32_t samples;
    uint32_t rate;
    uint32_t channels;
    switch_payload_t payload;
    uint32_t timestamp;
    uint16_t seq;
    uint32_t ssrc;
    switch_bool_t m;
    uint32_t flags;
    void* user_data;
    struct payload_map_s* pmap;
    struct vpx_image* img;
    struct switch_frame_geometry geometry;
};

typedef enum {
    SWITCH_ABC_TYPE_INIT = 0,
    SWITCH_ABC_TYPE_READ = 1,
    SWITCH_ABC_TYPE_WRITE = 2,
    SWITCH_ABC_TYPE_WRITE_REPLACE = 3,
    SWITCH_ABC_TYPE_READ_REPLACE = 4,
    SWITCH_ABC_TYPE_READ_PING = 5,
    SWITCH_ABC_TYPE_TAP_NATIVE_READ = 6,
    SWITCH_ABC_TYPE_TAP_NATIVE_WRITE = 7,
    SWITCH_ABC_TYPE_CLOSE = 8
} switch_abc_type_t;

typedef enum {
    SMBF_READ_STREAM = 1 << 0,
    SMBF_WRITE_STREAM = 1 << 1,
    SMBF_WRITE_REPLACE = 1 << 2,
    SMBF_READ_REPLACE = 1 << 3,
    SMBF_PRUNE = 1 << 9  // the bug is to be removed at the next frame
} switch_media_bug_flag_enum_t;
typedef uint32_t switch_media_bug_flag_t;

// False from the start event refuses the bug, from a later one removes it.
typedef switch_bool_t (*switch_media_bug_callback_t)(switch_media_bug_t*, void*, switch_abc_type_t);

// The callback gets the start event before the function returns.
SWITCH_DECLARE(switch_status_t)
switch_core_media_bug_add(switch_core_session_t* session, const char* function, const char* target,
                          switch_media_bug_callback_t callback, void* user_data, time_t stop_time,
                          switch_media_bug_flag_t flags, switch_media_bug_t** new_bug);
SWITCH_DECLARE(switch_core_session_t*) switch_core_media_bug_get_session(switch_media_bug_t* bug);

// The frame of the event being delivered; it belongs to the host.
SWITCH_DECLARE(switch_frame_t*)
switch_core_media_bug_get_read_replace_frame(switch_media_bug_t* bug);
SWITCH_DECLARE(switch_frame_t*)
switch_core_media_bug_get_write_replace_frame(switch_media_bug_t* bug);

// ---- helpers ----------------------------------------------------------------------

// Accepts digits, dots and a leading sign; also the empty text.
SWITCH_DECLARE(switch_bool_t) switch_is_number(const char* str);

// Wall clock, microseconds since 1970.
SWITCH_DECLARE(switch_time_t) switch_time_now(void);

#ifdef __cplusplus
}
#endif
