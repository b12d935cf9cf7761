// The requests for configuration modules: what is asked for when, and what a change notification
// leads to.

#include "plugin/kzemm_work_module_config.h"

#include <malloc.h>

#include <cstring>

#include "plugin/kzemm_drive_switch.h"
#include "tests/fakes/fake_ipc.h"
#include "tests/fakes/message_faults.h"
#include "tests/unit/worker_test.h"

using fakes::at;
using fakes::ipc_request;
using fakes::ipc_requests;
using fakes::log_lines;
using fakes::packed_message;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr unsigned int cmd_request = 1004;
constexpr unsigned int cmd_notification = 1002;
constexpr unsigned int limit_seconds = 60;
constexpr size_t capabilities = 10;  // how many x_client_engine_control one evaluation sends

struct module_row {
    const char *name;
    vrd_ipc_reply_cb callback;
};

const module_row modules[] = {
    {"abnormal_login", on_engine_cfg_response},
    {"anti_bfa", on_engine_cfg_response},
    {"trust_ip", on_engine_cfg_response},
    {"base_drive", on_base_drive_cfg_response},
};

std::string request_body(const std::string &module) {
    return packed_message(module, {{"module", module}});
}

std::string notification(const std::vector<std::string> &changed) {
    fakes::message_fields fields;
    for (const std::string &each : changed) {
        fields.emplace_back(each, "1");
    }
    return packed_message("notify", fields);
}

// The names of the modules asked for, in order.
std::vector<std::string> asked_for() {
    std::vector<std::string> result;
    for (const ipc_request &each : ipc_requests()) {
        result.emplace_back(static_cast<const char *>(each.context));
    }
    return result;
}

// The lines of the file that asks for modules, without those of the switches.
std::vector<fakes::record> request_lines() {
    return fakes::log_lines_from("kzemm_work_module_config.cpp");
}

unsigned int size_of(const std::string &text) {
    return static_cast<unsigned int>(text.size());
}

void expect_request(const ipc_request &made, const module_row &module) {
    SCOPED_TRACE(module.name);
    EXPECT_EQ(made.cmd, cmd_request);
    EXPECT_EQ(made.data, request_body(module.name));
    EXPECT_EQ(made.callback, module.callback);
    EXPECT_STREQ(static_cast<const char *>(made.context), module.name);
    EXPECT_EQ(made.time_limit, limit_seconds);
}

class kzemm_work_module_config_test : public worker_test {
  protected:
    void SetUp() override {
        worker_test::SetUp();
        init_config();
        make_config_readable();
        endpoint = vrd_ipc_create("agt_rpt", 0);
        fields::ipc(work) = endpoint;
        fakes::clear_journal();
    }

    void TearDown() override {
        work.stop_cfg_timer();
        vrd_ipc_destroy(endpoint);
        worker_test::TearDown();
    }

    // How many engine controls there are in the journal before its first request, or in all.
    static size_t controls_before_requests() {
        size_t result = 0;
        for (const fakes::record &each : fakes::journal({fakes::what::engine, fakes::what::ipc})) {
            if (each.text.rfind("request ", 0) == 0) {
                break;
            }
            result += each.text.rfind("x_client_engine_control", 0) == 0 ? 1 : 0;
        }
        return result;
    }

    int notify(const std::string &body) {
        return work.do_cfgc_notify(endpoint, fakes::ipc_peer(), body.data(), size_of(body));
    }

    vrd_ipc_st *endpoint = nullptr;
};

// As long as the process, as the modules that requests are made with.
char trust_ip[] = "trust_ip";
char anti_bfa[] = "anti_bfa";

// ---- retry_request_cfg; first, since its endpoint and address live as long as the process ----

TEST_F(kzemm_work_module_config_test,
       the_retry_makes_its_endpoint_and_its_address_at_first_need_and_keeps_them) {
    if (fakes::ipc_by_name("req_tmp") != nullptr) {
        GTEST_SKIP() << "an earlier test of this process made the endpoint";
    }
    fakes::ipc_create_fails("req_tmp");
    retry_request_cfg(trust_ip);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "vrd ipc create failed")));
    EXPECT_THAT(fakes::texts({fakes::what::ipc}), ElementsAre("create temporary req_tmp 0"));

    fakes::reset_ipc();
    fakes::addr_create_fails("agt_cfgc");
    fakes::clear_journal();
    retry_request_cfg(trust_ip);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "vrd addr create failed")));
    EXPECT_THAT(fakes::texts({fakes::what::ipc}),
                ElementsAre("create temporary req_tmp 0", "address agt_cfgc 1 2"));
    const vrd_ipc_st *const made = fakes::ipc_by_name("req_tmp");

    fakes::reset_ipc();
    for (const char *const last_creation : {"address agt_cfgc 1 2", ""}) {
        fakes::clear_journal();
        retry_request_cfg(trust_ip);
        std::vector<std::string> calls = fakes::texts({fakes::what::ipc});
        if (*last_creation != '\0') {
            ASSERT_THAT(calls, SizeIs(2));
            EXPECT_EQ(calls.front(), last_creation) << "the endpoint is there";
            calls.erase(calls.begin());
        }
        EXPECT_THAT(
            calls, ElementsAre("request 1004, " + std::to_string(request_body("trust_ip").size())));
        EXPECT_THAT(log_lines(), ElementsAre(at(3, "request cfgc success")));
    }
    ASSERT_THAT(ipc_requests(), SizeIs(2));
    for (const ipc_request &each : ipc_requests()) {
        expect_request(each, {"trust_ip", on_engine_cfg_response});
        EXPECT_EQ(each.ipc, made);
        EXPECT_EQ(each.addr, fakes::addr_by_name("agt_cfgc"));
    }
}

TEST_F(kzemm_work_module_config_test, the_retry_says_success_also_when_nothing_was_sent) {
    fakes::xmsg_new_fails("trust_ip");
    retry_request_cfg(trust_ip);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "xmsg new abnormaol login request msg failed"),
                                         at(3, "request cfgc success")));
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(kzemm_work_module_config_test, the_retry_asks_for_the_module_it_is_given) {
    retry_request_cfg(anti_bfa);
    ASSERT_THAT(ipc_requests(), SizeIs(1));
    expect_request(ipc_requests()[0], {"anti_bfa", on_engine_cfg_response});
    EXPECT_NE(ipc_requests()[0].ipc, endpoint) << "it uses an endpoint of its own";
}

// ---- request_cfg ----

TEST_F(kzemm_work_module_config_test, a_request_sets_the_switches_and_asks_for_all_modules) {
    EXPECT_EQ(work.request_cfg(), 0);
    ASSERT_THAT(ipc_requests(), SizeIs(4));
    for (size_t i = 0; i < 4; ++i) {
        expect_request(ipc_requests()[i], modules[i]);
        EXPECT_EQ(ipc_requests()[i].ipc, endpoint);
    }
    EXPECT_EQ(controls_before_requests(), capabilities);
    EXPECT_THAT(request_lines(), ElementsAre(at(3, "request cfgc success")));
}

TEST_F(kzemm_work_module_config_test, a_request_makes_the_address_first_and_destroys_it_last) {
    fakes::note(fakes::what::ipc, "begin");
    EXPECT_EQ(work.request_cfg(), 0);
    std::vector<std::string> order;
    for (const fakes::record &each : fakes::journal(
             {fakes::what::ipc, fakes::what::log, fakes::what::config, fakes::what::engine})) {
        const bool of_switches =
            each.kind == fakes::what::engine || each.kind == fakes::what::config ||
            (each.kind == fakes::what::log && each.file != "kzemm_work_module_config.cpp");
        const std::string text = of_switches ? "switches" : each.text;
        if (order.empty() || order.back() != text) {
            order.push_back(text);
        }
    }
    const auto size = [](const char *module) {
        return "request 1004, " + std::to_string(request_body(module).size());
    };
    // Two modules have names of one length, which gives two equal calls in a row.
    EXPECT_THAT(order, ElementsAre("begin", "address agt_cfgc 1 2", "switches",
                                   size("abnormal_login"), size("anti_bfa"), size("base_drive"),
                                   "request cfgc success", "destroy address agt_cfgc"));
    EXPECT_EQ(work.request_cfg(), 0);
    EXPECT_NE(ipc_requests()[0].addr, ipc_requests()[4].addr) << "an address for each call";
    for (size_t i = 1; i < 4; ++i) {
        EXPECT_EQ(ipc_requests()[i].addr, ipc_requests()[0].addr);
    }
}

TEST_F(kzemm_work_module_config_test, a_request_without_an_address_leaves_the_switches_alone) {
    fakes::addr_create_fails("agt_cfgc");
    EXPECT_EQ(work.request_cfg(), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "vrd addr create failed")));
    EXPECT_THAT(controls(), IsEmpty());
    EXPECT_THAT(fakes::config_reads(), IsEmpty());
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(kzemm_work_module_config_test, a_request_goes_on_when_the_switches_cannot_be_set) {
    make_config_unreadable();
    fakes::fail_timer_start(1);
    EXPECT_EQ(work.request_cfg(), 0);
    EXPECT_THAT(fakes::texts({fakes::what::timer}), ElementsAre("start fails"));
    EXPECT_THAT(asked_for(), ElementsAre("abnormal_login", "anti_bfa", "trust_ip", "base_drive"));
    EXPECT_THAT(request_lines(), ElementsAre(at(3, "request cfgc success")));
}

TEST_F(kzemm_work_module_config_test, a_request_goes_on_with_the_next_module) {
    fakes::xmsg_new_fails("abnormal_login");
    fakes::xmsg_new_fails("trust_ip");
    EXPECT_EQ(work.request_cfg(), 0);
    EXPECT_THAT(asked_for(), ElementsAre("anti_bfa", "base_drive"));
    EXPECT_THAT(request_lines(), ElementsAre(at(1, "xmsg new abnormaol login request msg failed"),
                                             at(1, "xmsg new abnormaol login request msg failed"),
                                             at(3, "request cfgc success")));
}

TEST_F(kzemm_work_module_config_test, a_request_says_success_when_no_module_was_asked_for) {
    fakes::xmsg_add_fails(-4);
    EXPECT_EQ(work.request_cfg(), 0);
    EXPECT_THAT(ipc_requests(), IsEmpty());
    EXPECT_THAT(request_lines(),
                ElementsAre(at(1, "add field module failed"), at(1, "add field module failed"),
                            at(1, "add field module failed"), at(1, "add field module failed"),
                            at(3, "request cfgc success")));
}

TEST_F(kzemm_work_module_config_test, a_request_without_an_endpoint_asks_for_nothing) {
    fields::ipc(work) = nullptr;
    EXPECT_EQ(work.request_cfg(), 0);
    EXPECT_THAT(ipc_requests(), IsEmpty());
    EXPECT_THAT(controls(), SizeIs(capabilities));
    EXPECT_THAT(request_lines(), ElementsAre(at(3, "request cfgc success")));
}

// ---- handle_cfg_msg ----

class handle_cfg_msg_test : public kzemm_work_module_config_test {
  protected:
    int ask(const char *module = "anti_bfa") {
        return handle_cfg_msg(endpoint, fakes::ipc_peer(), module, on_engine_cfg_response);
    }
};

TEST_F(handle_cfg_msg_test, a_sent_request_gives_the_number_of_its_bytes) {
    for (const module_row &each : modules) {
        EXPECT_EQ(handle_cfg_msg(endpoint, fakes::ipc_peer(), each.name, each.callback),
                  static_cast<int>(request_body(each.name).size()));
        expect_request(ipc_requests().back(), each);
        EXPECT_EQ(ipc_requests().back().ipc, endpoint);
        EXPECT_EQ(ipc_requests().back().addr, fakes::ipc_peer());
        EXPECT_EQ(fakes::open_messages(), 0);
    }
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(handle_cfg_msg_test, the_module_itself_is_the_context_of_the_request) {
    const std::string module = "some_module";
    EXPECT_GT(ask(module.c_str()), 0);
    EXPECT_EQ(ipc_requests()[0].context, module.c_str());
    EXPECT_EQ(ipc_requests()[0].data, request_body(module));
}

TEST_F(handle_cfg_msg_test, the_result_of_sending_is_not_looked_at) {
    fakes::ipc_make_request_returns(-5);
    EXPECT_EQ(ask(), static_cast<int>(request_body("anti_bfa").size()));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(handle_cfg_msg_test, nothing_is_sent_or_said_without_endpoint_or_address) {
    EXPECT_EQ(handle_cfg_msg(nullptr, fakes::ipc_peer(), "anti_bfa", on_engine_cfg_response), -1);
    EXPECT_EQ(handle_cfg_msg(endpoint, nullptr, "anti_bfa", on_engine_cfg_response), -1);
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(handle_cfg_msg_test, the_text_about_a_message_that_cannot_be_made_names_one_module_for_all) {
    for (const module_row &each : modules) {
        fakes::clear_journal();
        fakes::xmsg_new_fails(each.name);
        EXPECT_EQ(ask(each.name), -1);
        EXPECT_THAT(log_lines(), ElementsAre(at(1, "xmsg new abnormaol login request msg failed")));
    }
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(handle_cfg_msg_test, a_field_that_cannot_be_added_gives_the_result_of_the_add) {
    for (const int result : {-4, -1, 3}) {
        fakes::clear_journal();
        fakes::xmsg_add_fails(result);
        EXPECT_EQ(ask(), result);
        EXPECT_THAT(log_lines(), ElementsAre(at(1, "add field module failed")));
        EXPECT_EQ(fakes::open_messages(), 0);
    }
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(handle_cfg_msg_test, no_memory_for_the_buffer_gives_0) {
    fakes::fail_allocation(1);
    EXPECT_EQ(ask(), 0);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "malloc memory failed")));
    EXPECT_THAT(ipc_requests(), IsEmpty());
    EXPECT_EQ(fakes::open_messages(), 0);
}

TEST_F(handle_cfg_msg_test, a_message_that_cannot_be_packed_gives_the_result_of_the_packing) {
    for (const int result : {0, -1, -7}) {
        fakes::clear_journal();
        fakes::xmsg_pack_fails(result);
        EXPECT_EQ(ask(), result);
        EXPECT_THAT(log_lines(), ElementsAre(at(1, "xmsg pack failed")));
        EXPECT_EQ(fakes::open_messages(), 0);
    }
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(handle_cfg_msg_test, the_buffer_is_zeroed_before_the_message_is_packed) {
    mallopt(M_PERTURB, 0x5a);  // malloc gives memory that is anything but zero
    for (const module_row &each : modules) {
        EXPECT_GT(ask(each.name), 0);
    }
    mallopt(M_PERTURB, 0);
    EXPECT_TRUE(fakes::pack_buffers_were_zero());
}

// ---- cfg_msg_has_module ----

using cfg_msg_has_module_test = kzemm_work_module_config_test;

TEST_F(cfg_msg_has_module_test, a_notification_names_the_modules_that_are_its_keys) {
    const std::string body = notification({"anti_bfa", "base_drive"});
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "anti_bfa", 8), 0);
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "base_drive", 10), 0);
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "trust_ip", 8), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(4, "msg module is[anti_bfa]"), at(4, "msg module is[base_drive]")));
    EXPECT_EQ(fakes::dumped_messages(), 3U);
    EXPECT_EQ(fakes::open_messages(), 0);
}

TEST_F(cfg_msg_has_module_test, a_value_is_not_looked_at) {
    for (const std::string &value : {std::string(), std::string("0"), std::string(3, '\0')}) {
        const std::string body = packed_message("notify", {{"trust_ip", value}});
        EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "trust_ip", 8), 0);
    }
}

TEST_F(cfg_msg_has_module_test, a_key_fits_with_the_given_length_alone) {
    const std::string body = notification({"trust_ip", "anti_bfa2", "base"});
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "trust_ip_and_more", 8), 0);
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "anti_bfa", 8), -1);
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "base_drive", 10), -1);
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "trust_ip", 7), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(4, "msg module is[trust_ip_and_more]")));
}

TEST_F(cfg_msg_has_module_test, only_the_low_16_bits_of_a_keys_length_count) {
    const std::string body = notification({"trust_ip"});
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "trust_ip", 0x10000 + 8), 0);
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), "trust_ip", 0xFFFF0000 + 8), 0);
}

TEST_F(cfg_msg_has_module_test, bad_parameters_name_no_module) {
    const std::string body = notification({"trust_ip"});
    EXPECT_EQ(cfg_msg_has_module(nullptr, size_of(body), "trust_ip", 8), -1);
    EXPECT_EQ(cfg_msg_has_module(body.data(), 0, "trust_ip", 8), -1);
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body), nullptr, 8), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "param error"), at(1, "param error"), at(1, "param error")));
    EXPECT_EQ(fakes::unpacked_messages(), 0U);
}

TEST_F(cfg_msg_has_module_test, what_is_no_message_names_no_module) {
    const std::string body = notification({"trust_ip"});
    EXPECT_EQ(cfg_msg_has_module(body.data(), size_of(body) - 1, "trust_ip", 8), -1);
    EXPECT_EQ(cfg_msg_has_module("x", 1, "trust_ip", 8), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "unpack xmsg failed"), at(1, "unpack xmsg failed")));
    EXPECT_EQ(fakes::dumped_messages(), 0U);
}

// ---- do_cfgc_notify ----

using do_cfgc_notify_test = kzemm_work_module_config_test;

TEST_F(do_cfgc_notify_test, one_changed_module_is_asked_for_and_all_switches_are_set) {
    EXPECT_EQ(notify(notification({"trust_ip"})), 0);
    EXPECT_THAT(asked_for(), ElementsAre("trust_ip"));
    EXPECT_EQ(controls_before_requests(), capabilities);
    EXPECT_THAT(request_lines(),
                ElementsAre(at(3, "do cfgc notify success"), at(4, "msg module is[trust_ip]"),
                            at(3, "handle adv threat [trust_ip] cfg msg")));
}

TEST_F(do_cfgc_notify_test, each_module_is_asked_for_with_the_callback_of_its_row) {
    for (const module_row &each : modules) {
        fakes::reset_ipc();
        EXPECT_EQ(notify(notification({each.name})), 0);
        ASSERT_THAT(ipc_requests(), SizeIs(1));
        expect_request(ipc_requests()[0], each);
    }
}

TEST_F(do_cfgc_notify_test, all_changed_modules_are_asked_for_in_the_order_of_the_table) {
    vrd_ipc_st *const other = vrd_ipc_create("other", 0);
    const std::string body =
        notification({"base_drive", "unknown", "trust_ip", "anti_bfa", "abnormal_login"});
    EXPECT_EQ(work.do_cfgc_notify(other, fakes::ipc_peer(), body.data(), size_of(body)), 0);
    ASSERT_THAT(ipc_requests(), SizeIs(4));
    for (size_t i = 0; i < 4; ++i) {
        expect_request(ipc_requests()[i], modules[i]);
        EXPECT_EQ(ipc_requests()[i].ipc, other) << "the endpoint that the notification came to";
        EXPECT_EQ(ipc_requests()[i].addr, fakes::ipc_peer()) << "the address that it came from";
    }
    EXPECT_THAT(fakes::texts({fakes::what::ipc}), Not(Contains("address agt_cfgc 1 2")));
    EXPECT_EQ(fakes::unpacked_messages(), 4U) << "the body is unpacked anew for each module";
    EXPECT_EQ(fakes::dumped_messages(), 4U);
    vrd_ipc_destroy(other);
}

TEST_F(do_cfgc_notify_test, a_module_is_handled_before_the_next_is_looked_for) {
    EXPECT_EQ(notify(notification({"anti_bfa", "abnormal_login"})), 0);
    EXPECT_THAT(request_lines(),
                ElementsAre(at(3, "do cfgc notify success"), at(4, "msg module is[abnormal_login]"),
                            at(3, "handle adv threat [abnormal_login] cfg msg"),
                            at(4, "msg module is[anti_bfa]"),
                            at(3, "handle adv threat [anti_bfa] cfg msg")));
}

TEST_F(do_cfgc_notify_test, an_unknown_module_is_not_asked_for) {
    EXPECT_EQ(notify(notification({"unknown", "trust", "anti_bfa_more"})), 0);
    EXPECT_THAT(ipc_requests(), IsEmpty());
    EXPECT_THAT(controls(), SizeIs(capabilities));
    EXPECT_THAT(request_lines(), ElementsAre(at(3, "do cfgc notify success")));
}

TEST_F(do_cfgc_notify_test, a_notification_without_a_body_sets_the_switches_all_the_same) {
    const std::string body = notification({"trust_ip"});
    EXPECT_EQ(work.do_cfgc_notify(endpoint, fakes::ipc_peer(), body.data(), 0), 0);
    EXPECT_EQ(work.do_cfgc_notify(endpoint, fakes::ipc_peer(), nullptr, 4), 0);
    EXPECT_THAT(controls(), SizeIs(2 * capabilities));
    EXPECT_THAT(request_lines(),
                ElementsAre(at(3, "do cfgc notify success"), at(1, "param error"),
                            at(1, "param error"), at(1, "param error"), at(1, "param error"),
                            at(3, "do cfgc notify success"), at(1, "param error"),
                            at(1, "param error"), at(1, "param error"), at(1, "param error")));
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(do_cfgc_notify_test, a_broken_notification_is_told_of_once_for_each_module) {
    EXPECT_EQ(notify("no message"), 0);
    EXPECT_THAT(controls(), SizeIs(capabilities));
    EXPECT_THAT(request_lines(),
                ElementsAre(at(3, "do cfgc notify success"), at(1, "unpack xmsg failed"),
                            at(1, "unpack xmsg failed"), at(1, "unpack xmsg failed"),
                            at(1, "unpack xmsg failed")));
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(do_cfgc_notify_test, says_success_also_when_the_switches_cannot_be_set) {
    make_config_unreadable();
    fakes::fail_timer_start(1);
    EXPECT_EQ(notify(notification({"anti_bfa"})), 0);
    EXPECT_THAT(fakes::texts({fakes::what::timer}), ElementsAre("start fails"));
    EXPECT_THAT(request_lines(), Contains(at(3, "do cfgc notify success")));
    EXPECT_THAT(asked_for(), ElementsAre("anti_bfa"));
}

TEST_F(do_cfgc_notify_test, goes_on_with_the_next_module_when_one_cannot_be_asked_for) {
    fakes::xmsg_new_fails("anti_bfa");
    EXPECT_EQ(notify(notification({"abnormal_login", "anti_bfa", "base_drive"})), 0);
    EXPECT_THAT(asked_for(), ElementsAre("abnormal_login", "base_drive"));
}

TEST_F(do_cfgc_notify_test, is_what_the_one_way_command_1002_leads_to) {
    const std::string body = notification({"base_drive"});
    work.handle_ipc_recv_msg(endpoint, fakes::ipc_peer(), cmd_notification, body.data(),
                             size_of(body));
    EXPECT_THAT(asked_for(), ElementsAre("base_drive"));
    fakes::reset_ipc();
    work.handle_ipc_recv_msg(endpoint, fakes::ipc_peer(), cmd_request, body.data(), size_of(body));
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

}  // namespace
