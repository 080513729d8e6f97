// The records of switch.h lie in memory as the host lays them out: offsets and sizes as
// 64-bit Linux has them in FreeSWITCH 1.10 and 1.11, written out by hand.
#include <gtest/gtest.h>
#include <switch.h>

#include <cstddef>

namespace {

#define EXPECT_AT(type, field, offset) EXPECT_EQ(offsetof(type, field), std::size_t{offset})

TEST(SwitchLayout, ModuleTable) {
    using T = switch_loadable_module_function_table_t;
    EXPECT_AT(T, switch_api_version, 0);
    EXPECT_AT(T, load, 8);
    EXPECT_AT(T, shutdown, 16);
    EXPECT_AT(T, runtime, 24);
    EXPECT_AT(T, flags, 32);
    EXPECT_EQ(sizeof(T), 40u);
}

TEST(SwitchLayout, ApplicationInterface) {
    using T = switch_application_interface_t;
    EXPECT_AT(T, interface_name, 0);
    EXPECT_AT(T, application_function, 8);
    EXPECT_AT(T, long_desc, 16);
    EXPECT_AT(T, short_desc, 24);
    EXPECT_AT(T, syntax, 32);
    EXPECT_AT(T, flags, 40);
    EXPECT_AT(T, rwlock, 48);
    EXPECT_AT(T, parent, 72);
    EXPECT_EQ(sizeof(T), 88u);
}

TEST(SwitchLayout, ApiInterface) {
    using T = switch_api_interface_t;
    EXPECT_AT(T, interface_name, 0);
    EXPECT_AT(T, desc, 8);
    EXPECT_AT(T, function, 16);
    EXPECT_AT(T, syntax, 24);
    EXPECT_AT(T, parent, 56);
    EXPECT_EQ(sizeof(T), 72u);
}

TEST(SwitchLayout, StreamHandle) {
    using T = switch_stream_handle_t;
    EXPECT_AT(T, read_function, 0);
    EXPECT_AT(T, write_function, 8);
    EXPECT_AT(T, raw_write_function, 16);
    EXPECT_AT(T, data, 24);
    EXPECT_AT(T, end, 32);
    EXPECT_AT(T, data_len, 48);
    EXPECT_AT(T, param_event, 72);
    EXPECT_EQ(sizeof(T), 80u);
}

TEST(SwitchLayout, Event) {
    using T = switch_event_t;
    EXPECT_AT(T, event_id, 0);
    EXPECT_AT(T, owner, 8);
    EXPECT_AT(T, headers, 24);
    EXPECT_AT(T, body, 40);
    EXPECT_AT(T, bind_user_data, 48);
    EXPECT_AT(T, flags, 80);
    EXPECT_EQ(sizeof(T), 88u);
    EXPECT_AT(switch_event_header_t, value, 8);
    EXPECT_AT(switch_event_header_t, idx, 24);
    EXPECT_AT(switch_event_header_t, next, 40);
}

TEST(SwitchLayout, Frame) {
    using T = switch_frame_t;
    EXPECT_AT(T, codec, 0);
    EXPECT_AT(T, packetlen, 24);
    EXPECT_AT(T, extra_data, 32);
    EXPECT_AT(T, data, 40);
    EXPECT_AT(T, datalen, 48);
    EXPECT_AT(T, buflen, 52);
    EXPECT_AT(T, samples, 56);
    EXPECT_AT(T, rate, 60);
    EXPECT_AT(T, channels, 64);
    EXPECT_AT(T, payload, 68);
    EXPECT_AT(T, timestamp, 72);
    EXPECT_AT(T, seq, 76);
    EXPECT_AT(T, ssrc, 80);
    EXPECT_AT(T, m, 84);
    EXPECT_AT(T, flags, 88);
    EXPECT_AT(T, user_data, 96);
    EXPECT_AT(T, geometry, 120);
    EXPECT_EQ(sizeof(T), 152u);
}

TEST(SwitchLayout, Codec) {
    using T = switch_codec_t;
    EXPECT_AT(T, codec_interface, 0);
    EXPECT_AT(T, implementation, 8);
    EXPECT_AT(T, flags, 32);
    EXPECT_AT(T, memory_pool, 40);
    EXPECT_AT(T, mutex, 64);
    EXPECT_AT(T, session, 80);
    EXPECT_EQ(sizeof(T), 96u);
}

TEST(SwitchLayout, CodecImplementation) {
    using T = switch_codec_implementation_t;
    EXPECT_AT(T, codec_type, 0);
    EXPECT_AT(T, ianacode, 4);
    EXPECT_AT(T, iananame, 8);
    EXPECT_AT(T, samples_per_second, 24);
    EXPECT_AT(T, samples_per_packet, 40);
    EXPECT_AT(T, number_of_channels, 52);
    EXPECT_AT(T, codec_frames_per_packet, 56);
    EXPECT_AT(T, init, 64);
    EXPECT_AT(T, destroy, 112);
    EXPECT_AT(T, codec_id, 120);
    EXPECT_AT(T, modname, 128);
    EXPECT_EQ(sizeof(T), 144u);
}

TEST(SwitchLayout, Timetable) {
    using T = switch_channel_timetable_t;
    EXPECT_AT(T, profile_created, 0);
    EXPECT_AT(T, created, 8);
    EXPECT_AT(T, answered, 16);
    EXPECT_AT(T, hungup, 40);
    EXPECT_AT(T, next, 88);
    EXPECT_EQ(sizeof(T), 96u);
}

TEST(SwitchLayout, ValuesThatTheHostAndTheModuleExchange) {
    EXPECT_EQ(SWITCH_STATUS_GENERR, 9);
    EXPECT_EQ(SWITCH_STATUS_TERM, 21);
    EXPECT_EQ(SWITCH_LOG_DEBUG1, 101);
    EXPECT_EQ(SWITCH_CHANNEL_ID_SESSION, 3);
    EXPECT_EQ(SWITCH_EVENT_CHANNEL_DESTROY, 3);
    EXPECT_EQ(SWITCH_EVENT_CHANNEL_UUID, 22);
    EXPECT_EQ(SWITCH_ABC_TYPE_CLOSE, 8);
    EXPECT_EQ(SMBF_READ_REPLACE | SMBF_WRITE_REPLACE, 0xC);
    EXPECT_EQ(SWITCH_APPLICATION_INTERFACE, 4);
    EXPECT_EQ(SWITCH_API_INTERFACE, 5);
    EXPECT_EQ(CS_HANGUP, 10);
}

}  // namespace
