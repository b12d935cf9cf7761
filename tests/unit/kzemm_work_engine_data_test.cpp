// What becomes of the engine's data: origin data, the four kinds that are passed on as they came,
// and the results of linkage analyses.

#include <gmock/gmock.h>
#include <zlib.h>

#include <cstdio>
#include <thread>

#include "plugin/kzemm_work.h"
#include "tests/fakes/fake_bus.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_gateway.h"
#include "tests/fakes/fake_ipc.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class kzemm_work_engine_data_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
    }
};

std::string pointer_text(const void *pointer) {
    char text[32] = {};
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

std::string origin_frame(const std::string &data) {
    uLongf size = compressBound(data.size());
    std::string stream(size, '\0');
    EXPECT_EQ(compress(reinterpret_cast<Bytef *>(stream.data()), &size,
                       reinterpret_cast<const Bytef *>(data.data()), data.size()),
              Z_OK);
    stream.resize(size);
    std::string header("3200\0\0\2\0\2\0\0\0\0\0\0\0", 16);
    for (int i = 0; i < 4; ++i) {
        header.push_back(static_cast<char>(data.size() >> 8 * i & 0xFF));
    }
    return header + stream;
}

// ---- origin data ----

struct switches {
    const char *name;
    bool report;
    bool forward;
};

// For each state of the two switches. Whether data is forwarded to the bus doesn't change what
// else happens to it.
class kzemm_work_origin_test : public kzemm_work_engine_data_test,
                               public testing::WithParamInterface<switches> {
  protected:
    void SetUp() override {
        kzemm_work_engine_data_test::SetUp();
        kzemm_config_inspector::report_switch() = GetParam().report;
        kzemm_config_inspector::origin_forward_switch() = GetParam().forward;
    }
};

const switches report_off[] = {{"forward_on", false, true}, {"forward_off", false, false}};
const switches report_on[] = {{"forward_on", true, true}, {"forward_off", true, false}};

using kzemm_work_origin_report_off_test = kzemm_work_origin_test;
using kzemm_work_origin_report_on_test = kzemm_work_origin_test;

const auto name_of = [](const auto &each) { return each.param.name; };
INSTANTIATE_TEST_SUITE_P(, kzemm_work_origin_report_off_test, testing::ValuesIn(report_off),
                         name_of);
INSTANTIATE_TEST_SUITE_P(, kzemm_work_origin_report_on_test, testing::ValuesIn(report_on), name_of);

TEST_P(kzemm_work_origin_report_off_test, frees_the_data_once_and_sends_nothing) {
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "get qd_origin data"), at(3, "report switch is off")));
}

TEST_P(kzemm_work_origin_report_off_test, frees_data_of_length_0) {
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 0, nullptr);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "get qd_origin data"), at(3, "report switch is off")));
}

TEST_P(kzemm_work_origin_report_off_test, frees_no_null) {
    kzemm_work_inspector::qd_origin_cb(nullptr, 4, nullptr);
    EXPECT_EQ(fakes::engine_frees(), 0U);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "get qd_origin data"), at(3, "report switch is off")));
}

TEST_P(kzemm_work_origin_report_on_test, sends_one_compressed_frame) {
    const std::string data = std::string(900, 'a') + std::string(100, '\0');
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer(data), 1000, nullptr);
    ASSERT_THAT(fakes::gateway_sends(), SizeIs(1));
    EXPECT_EQ(fakes::gateway_sends()[0].type, 5);
    EXPECT_EQ(fakes::gateway_sends()[0].data, origin_frame(data));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "get qd_origin data"), at(3, "send data to thtgw success")));
}

TEST_P(kzemm_work_origin_report_on_test, frees_the_engines_buffer_once_before_the_gateway_call) {
    unsigned int frees_before = 0;
    unsigned int outstanding = 0;
    fakes::on_gateway_send([&] {
        frees_before = fakes::engine_frees();
        outstanding = fakes::outstanding_engine_buffers();
    });
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    ASSERT_THAT(fakes::gateway_sends(), SizeIs(1));
    EXPECT_EQ(frees_before, 1U);
    EXPECT_EQ(outstanding, 0U);
    EXPECT_EQ(fakes::engine_frees(), 1U) << "the frame doesn't go to the engine";
}

TEST_P(kzemm_work_origin_report_on_test, loses_what_the_gateway_refuses) {
    fakes::gateway_returns(-1);
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_THAT(fakes::gateway_sends(), SizeIs(1)) << "the data is sent once";
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "get qd_origin data"),
                                         at(1, "send data to kzethtgw failed, type: 5")));
}

TEST_P(kzemm_work_origin_report_on_test, drops_null_and_frees_nothing) {
    kzemm_work_inspector::qd_origin_cb(nullptr, 4, nullptr);
    EXPECT_EQ(fakes::engine_frees(), 0U);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "get qd_origin data"),
                                         at(2, "origin data empty, data: (nil), len: 4"),
                                         at(2, "convert origin data failed")));
}

TEST_P(kzemm_work_origin_report_on_test, drops_and_frees_data_of_length_0) {
    char *const data = fakes::engine_buffer("text");
    const std::string address = pointer_text(data);
    kzemm_work_inspector::qd_origin_cb(data, 0, nullptr);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "get qd_origin data"),
                                         at(2, "origin data empty, data: " + address + ", len: 0"),
                                         at(2, "convert origin data failed")));
}

TEST_P(kzemm_work_origin_report_on_test, drops_and_frees_what_cannot_be_compressed) {
    fakes::compress_fails(Z_BUF_ERROR);
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "get qd_origin data"), at(1, "compress buffer failed with code = -5"),
                    at(2, "zlib compress data failed"), at(2, "convert origin data failed")));
}

TEST_P(kzemm_work_origin_report_on_test, drops_and_frees_what_cannot_be_framed) {
    const size_t frame_size = origin_frame("text").size();
    char *const data = fakes::engine_buffer("text");
    fakes::fail_allocation(2);  // behind the compressed data
    kzemm_work_inspector::qd_origin_cb(data, 4, nullptr);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "get qd_origin data"),
                    at(2, "malloc " + std::to_string(frame_size) + " byte for send msg failed."),
                    at(2, "add module head failed"), at(2, "convert origin data failed")));
}

// ---- origin data on the message bus ----

class kzemm_work_origin_bus_test : public kzemm_work_engine_data_test {
  protected:
    void SetUp() override {
        kzemm_work_engine_data_test::SetUp();
        kzemm_config_inspector::origin_forward_switch() = true;
        kzemm_config_inspector::report_switch() = true;
        fakes::advise_plugin();
    }

    static std::vector<std::string> in_order() {
        return fakes::texts(
            {fakes::what::log, fakes::what::bus_log, fakes::what::bus, fakes::what::gateway});
    }
};

TEST_F(kzemm_work_origin_bus_test, is_published_before_it_is_reported) {
    const std::string frame_size = std::to_string(origin_frame("text").size());
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_THAT(
        in_order(),
        ElementsAre("get qd_origin data", fakes::bus_text(3, "rec one message."), "dispatch 18",
                    fakes::bus_text(3, "Event: 18 OriginCltJson: text", "kzemm_event.cpp"),
                    "kzethtgw_async_send(5, " + frame_size + " bytes)",
                    "send data to thtgw success"));
    ASSERT_THAT(fakes::bus_events(), SizeIs(1));
    EXPECT_EQ(fakes::bus_events()[0].data, "text");
}

TEST_F(kzemm_work_origin_bus_test, is_published_also_while_nothing_is_reported) {
    kzemm_config_inspector::report_switch() = false;
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_THAT(
        in_order(),
        ElementsAre("get qd_origin data", fakes::bus_text(3, "rec one message."), "dispatch 18",
                    fakes::bus_text(3, "Event: 18 OriginCltJson: text", "kzemm_event.cpp"),
                    "report switch is off"));
    EXPECT_EQ(fakes::engine_frees(), 1U);
}

TEST_F(kzemm_work_origin_bus_test, is_the_engines_until_the_publication_is_over) {
    unsigned int frees_before = 77;
    fakes::on_bus_dispatch([&](MbFrame::IEvent *) { frees_before = fakes::engine_frees(); });
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_EQ(frees_before, 0U);
    EXPECT_EQ(fakes::engine_frees(), 1U);
}

TEST_F(kzemm_work_origin_bus_test, is_not_published_with_the_switch_off) {
    kzemm_config_inspector::origin_forward_switch() = false;
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_THAT(fakes::texts({fakes::what::bus, fakes::what::bus_log}), IsEmpty());
    EXPECT_THAT(fakes::gateway_sends(), SizeIs(1));
}

TEST_F(kzemm_work_origin_bus_test, follows_its_switch_at_each_delivery) {
    for (const bool forward : {true, false, true}) {
        kzemm_config_inspector::origin_forward_switch() = forward;
        kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    }
    EXPECT_THAT(fakes::bus_events(), SizeIs(2));
    EXPECT_THAT(fakes::gateway_sends(), SizeIs(3));
}

TEST_F(kzemm_work_origin_bus_test, costs_one_error_a_delivery_without_a_bus_and_nothing_else) {
    kzemm_invoke_inspector::reset();
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_THAT(fakes::bus_lines(), ElementsAre(fakes::bus_at(0, "bus need init first."),
                                                fakes::bus_at(0, "bus need init first.")));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "get qd_origin data"), at(3, "send data to thtgw success"),
                            at(3, "get qd_origin data"), at(3, "send data to thtgw success")));
}

TEST_F(kzemm_work_origin_bus_test, is_reported_and_freed_when_the_bus_refuses_it) {
    fakes::bus_dispatch_returns(-1);
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_THAT(
        fakes::bus_lines(),
        ElementsAre(fakes::bus_at(3, "rec one message."), fakes::bus_at(0, "Error to Invoke data."),
                    fakes::bus_at(3, "Event: 18 OriginCltJson: text", "kzemm_event.cpp")));
    EXPECT_THAT(fakes::gateway_sends(), SizeIs(1));
    EXPECT_EQ(fakes::engine_frees(), 1U);
}

TEST_F(kzemm_work_origin_bus_test, is_not_published_when_it_is_null_or_empty) {
    kzemm_work_inspector::qd_origin_cb(nullptr, 4, nullptr);
    kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 0, nullptr);
    EXPECT_THAT(fakes::texts({fakes::what::bus, fakes::what::bus_log}), IsEmpty());
    EXPECT_EQ(fakes::engine_frees(), 1U);
}

TEST_F(kzemm_work_engine_data_test, looks_at_the_report_switch_at_each_delivery) {
    for (const bool report : {true, false, true}) {
        kzemm_config_inspector::report_switch() = report;
        kzemm_work_inspector::qd_origin_cb(fakes::engine_buffer("text"), 4, nullptr);
    }
    EXPECT_THAT(fakes::gateway_sends(), SizeIs(2));
    EXPECT_EQ(fakes::engine_frees(), 3U);
}

// ---- what is passed on as it came ----

struct forwarder {
    const char *name;
    qd_data_cb callback;
    int type;
    const char *line;
};

class kzemm_work_forward_test : public kzemm_work_engine_data_test,
                                public testing::WithParamInterface<forwarder> {};

INSTANTIATE_TEST_SUITE_P(
    , kzemm_work_forward_test,
    testing::Values(forwarder{"alarm", kzemm_work_inspector::qd_alarm_cb, 1, "get qd_alarm data"},
                    forwarder{"linkage", kzemm_work_inspector::qd_coordinate_linkage_cb, 2,
                              "get qd_coordinate_linkage data"},
                    forwarder{"append", kzemm_work_inspector::qd_coordinate_append_cb, 3,
                              "get qd_coordinate_append data"},
                    forwarder{"hunting", kzemm_work_inspector::qd_coordinate_hunting_cb, 4,
                              "get qd_coordinate_hunting data"}),
    name_of);

TEST_P(kzemm_work_forward_test, goes_to_the_gateway_under_its_own_type) {
    const std::string data("a\0text", 6);
    GetParam().callback(fakes::engine_buffer(data), 6, nullptr);
    ASSERT_THAT(fakes::gateway_sends(), SizeIs(1));
    EXPECT_EQ(fakes::gateway_sends()[0].type, GetParam().type);
    EXPECT_EQ(fakes::gateway_sends()[0].data, data);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, GetParam().line), at(3, "send data to thtgw success")));
}

TEST_P(kzemm_work_forward_test, goes_on_the_thread_that_delivers_it) {
    pthread_t deliverer = 0;
    std::thread([&] {
        deliverer = pthread_self();
        GetParam().callback(fakes::engine_buffer("text"), 4, nullptr);
    }).join();
    ASSERT_THAT(fakes::gateway_sends(), SizeIs(1));
    EXPECT_TRUE(pthread_equal(fakes::gateway_sends()[0].thread, deliverer));
}

TEST_P(kzemm_work_forward_test, needs_no_switch) {
    kzemm_config_inspector::report_switch() = false;
    kzemm_config_inspector::origin_forward_switch() = false;
    GetParam().callback(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_THAT(fakes::gateway_sends(), SizeIs(1));
}

TEST_P(kzemm_work_forward_test, goes_back_to_the_engine_when_the_gateway_refuses) {
    fakes::gateway_returns(1);
    GetParam().callback(fakes::engine_buffer("text"), 4, nullptr);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, GetParam().line), at(1, "send data to kzethtgw failed, type: " +
                                                              std::to_string(GetParam().type))));
}

TEST_P(kzemm_work_forward_test, goes_back_to_the_engine_with_length_0) {
    GetParam().callback(fakes::engine_buffer("text"), 0, nullptr);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, GetParam().line), at(2, "param is invalid,  length: 0")));
}

TEST_P(kzemm_work_forward_test, is_nothing_when_it_is_null) {
    GetParam().callback(nullptr, 4, nullptr);
    EXPECT_EQ(fakes::engine_frees(), 0U);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(3, GetParam().line), at(2, "data is null")));
}

// ---- the results of linkage analyses ----

class kzemm_work_linkage_reply_test : public kzemm_work_engine_data_test {
  protected:
    void SetUp() override {
        kzemm_work_engine_data_test::SetUp();
        kzemm_work_inspector::ipc(work) = reinterpret_cast<vrd_ipc_st *>(&endpoint);
        kzemm_work_inspector::lkg_addr(work) = reinterpret_cast<vrd_addr_st *>(&address);
    }

    // The one message that went out, as command 5 to the linkage service.
    void expect_one_send(bool null_data, const std::string &data) {
        ASSERT_THAT(fakes::ipc_sends(), SizeIs(1));
        const fakes::ipc_send sent = fakes::ipc_sends()[0];
        EXPECT_EQ(sent.ipc, kzemm_work_inspector::ipc(work));
        EXPECT_EQ(sent.addr, kzemm_work_inspector::lkg_addr(work));
        EXPECT_EQ(sent.cmd, 5U);
        EXPECT_EQ(sent.null_data, null_data);
        EXPECT_EQ(sent.data, data);
    }

    kzemm_work_inspector work;

  private:
    char endpoint = 0;  // what the handles point to; nothing looks at it
    char address = 0;
};

const auto begin_line = at(3, "kzemm_send_to_kzelkganal begin!");
const auto end_line = at(3, "kzemm_send_to_kzelkganal end!");

TEST_F(kzemm_work_linkage_reply_test, goes_out_as_delivered_and_is_freed) {
    const std::string data("a\0result", 8);
    kzemm_send_to_kzelkganal(0, fakes::engine_buffer(data), 8, &work);
    expect_one_send(false, data);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(begin_line, end_line));
}

TEST_F(kzemm_work_linkage_reply_test, goes_out_before_it_is_freed) {
    unsigned int frees_before = 77;
    fakes::on_ipc_send([&] { frees_before = fakes::engine_frees(); });
    kzemm_send_to_kzelkganal(0, fakes::engine_buffer("text"), 4, &work);
    EXPECT_EQ(frees_before, 0U);
    EXPECT_EQ(fakes::engine_frees(), 1U);
}

TEST_F(kzemm_work_linkage_reply_test, goes_out_empty_without_data_and_nothing_is_freed) {
    kzemm_send_to_kzelkganal(0, nullptr, 0, &work);
    expect_one_send(true, "");
    EXPECT_EQ(fakes::engine_frees(), 0U);
    EXPECT_THAT(log_lines(), ElementsAre(begin_line, end_line));
}

TEST_F(kzemm_work_linkage_reply_test, is_freed_when_it_cannot_be_sent) {
    for (const int code : {-1, 1}) {
        fakes::reset_engine();
        fakes::clear_journal();
        fakes::ipc_send_returns(code);
        kzemm_send_to_kzelkganal(0, fakes::engine_buffer("text"), 4, &work);
        EXPECT_EQ(fakes::engine_frees(), 1U);
        EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
        EXPECT_THAT(log_lines(), ElementsAre(begin_line, at(1, "Ipc send failed!\n"), end_line));
    }
    EXPECT_THAT(fakes::ipc_sends(), SizeIs(2)) << "each is sent once";
}

TEST_F(kzemm_work_linkage_reply_test, frees_no_null_when_it_cannot_be_sent) {
    fakes::ipc_send_returns(-1);
    kzemm_send_to_kzelkganal(0, nullptr, 0, &work);
    EXPECT_EQ(fakes::engine_frees(), 0U);
    EXPECT_THAT(log_lines(), ElementsAre(begin_line, at(1, "Ipc send failed!\n"), end_line));
}

TEST_F(kzemm_work_linkage_reply_test, is_empty_after_an_error_and_the_data_is_left_alone) {
    for (const int err : {7, -3}) {
        SCOPED_TRACE(err);
        fakes::reset_ipc();
        fakes::clear_journal();
        char data[] = "text";
        kzemm_send_to_kzelkganal(err, data, 4, &work);
        expect_one_send(true, "");
        EXPECT_EQ(fakes::engine_frees(), 0U);
        EXPECT_STREQ(data, "text");
        EXPECT_THAT(
            log_lines(),
            ElementsAre(begin_line,
                        at(1, "qd_send_to_kzelkganal failed, err:" + std::to_string(err) + "\n"),
                        end_line));
    }
}

TEST_F(kzemm_work_linkage_reply_test, is_empty_after_an_error_without_data) {
    kzemm_send_to_kzelkganal(7, nullptr, 0, &work);
    expect_one_send(true, "");
    EXPECT_EQ(fakes::engine_frees(), 0U);
}

TEST_F(kzemm_work_linkage_reply_test, tells_that_an_empty_answer_could_not_be_sent) {
    fakes::ipc_send_returns(-1);
    char data[] = "text";
    kzemm_send_to_kzelkganal(7, data, 4, &work);
    EXPECT_THAT(fakes::ipc_sends(), SizeIs(1));
    EXPECT_EQ(fakes::engine_frees(), 0U);
    EXPECT_THAT(log_lines(), ElementsAre(begin_line, at(1, "qd_send_to_kzelkganal failed, err:7\n"),
                                         at(1, "Ipc send failed!\n"), end_line));
}

// The member itself never reads its user pointer.
TEST_F(kzemm_work_linkage_reply_test, needs_no_user_within_the_object) {
    work.qd_send_to_kzelkganal(0, fakes::engine_buffer("text"), 4, nullptr);
    expect_one_send(false, "text");
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_work_linkage_reply_test, does_nothing_at_all_without_a_user) {
    char data[] = "text";
    kzemm_send_to_kzelkganal(0, data, 4, nullptr);
    kzemm_send_to_kzelkganal(7, data, 4, nullptr);
    EXPECT_THAT(fakes::ipc_sends(), IsEmpty());
    EXPECT_EQ(fakes::engine_frees(), 0U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

}  // namespace
