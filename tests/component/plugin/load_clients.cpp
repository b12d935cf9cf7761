#include "tests/component/plugin/load_clients.h"

#include <chrono>
#include <random>

namespace {

using namespace std::string_literals;

// Numbers that are the same with every standard library.
class random_source {
  public:
    explicit random_source(unsigned int seed) : engine(seed) {}
    unsigned int operator()() { return static_cast<unsigned int>(engine()); }

  private:
    std::mt19937 engine;
};

std::atomic<std::uint64_t> moments{0};

std::string big_endian(std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<char>(value >> shift));
    }
    return bytes;
}

std::string frame(char proto_type, const std::string &body) {
    return "3200\0\0\0\0\0"s + proto_type + "\0\0\0\0\0\0"s +
           big_endian(static_cast<std::uint32_t>(body.size())) + body;
}

// Tells one request from all others, whatever its size.
std::string text_of(unsigned int client, unsigned int number, random_source &random) {
    std::string text = "request " + std::to_string(number) + " of " + std::to_string(client) + " ";
    const unsigned int more = random() % 16 == 0 ? 8192 : random() % 1200;
    return text + std::string(more, static_cast<char>('a' + random() % 26));
}

planned_request valid(unsigned int cmd, const std::string &text) {
    switch (cmd) {
        case 1004:
            return {cmd, text, true, 0, 1, frame(1, text)};
        case 1005:
            return {cmd, text, true, 0, 2, frame(1, text)};
        case 1002:
            return {cmd, frame(1, text), true, 0, 3, frame(1, text)};
        case 102: {
            const std::string set = R"({"rulesId":"set","rulesInfo":")" + text + "\"}";
            return {cmd, frame(1, set), true, 0, 4, text};
        }
        default:
            return {cmd, text, true, 0, 5, text};
    }
}

planned_request broken(unsigned int cmd, const std::string &text, int code) {
    return {cmd, text, false, code, 0, ""};
}

// Each defect with the code that is defined for it.
planned_request broken_one(unsigned int defect, const std::string &text, random_source &random) {
    const unsigned int framed = random() % 2 == 0 ? 1002 : 102;
    std::string bytes = frame(1, text);
    switch (defect) {
        case 0:
            return broken(random() % 2 == 0 ? 1004 : 1005, "", 3);
        case 1:
            return broken(1010, "", 3);
        case 2:
            return broken(framed, bytes.substr(0, random() % bytes.size()), 3);
        case 3:
            return broken(framed, bytes + "x", 3);
        case 4:
            bytes[random() % 4] = 'x';
            return broken(framed, bytes, 3);
        case 5:
            return broken(framed, frame(2, text), 3);
        case 6:  // the length in the other byte order
            std::swap(bytes[16], bytes[19]);
            std::swap(bytes[17], bytes[18]);
            return broken(framed, bytes, 3);
        case 7:
            return broken(framed, "", 3);
        case 8:
            return broken(7, text, 2);
        default:
            return broken(7, "", 3);  // the message is looked at first
    }
}

}  // namespace

std::string request_frame(const std::string &body) {
    return frame(1, body);
}

std::string response_frame(int code) {
    return frame(2, "{\"resp_code\":" + std::to_string(code) + ", \"resp_msg\":\"\"}");
}

planned_request plan(unsigned int client, unsigned int number) {
    constexpr unsigned int commands[] = {1004, 1005, 1002, 102, 1010};
    random_source random(client * 1000003U + number);
    const std::string text = text_of(client, number, random);
    if (random() % 3 == 0) {
        return broken_one(random() % 10, text, random);
    }
    return valid(commands[random() % 5], text);
}

load_client::load_client(unsigned int number, unsigned int at_a_time, unsigned int room)
    : own_number(number),
      window(at_a_time),
      ipc(loop),
      plugin("agt_rpt"),
      all(room),
      contexts(room) {}

// The endpoint goes first: what is pending ends with it, and asks for this object.
load_client::~load_client() {
    ipc.destroy();
    loop.stop();
}

void load_client::send(unsigned int first, unsigned int last) {
    open = last - first;
    loop.start([this, first, last] {
        next = first;
        end = last;
        send_more();
    });
}

void load_client::send_more() {
    while (next < end && unanswered < window) {
        send_one(next++);
    }
}

void load_client::send_one(unsigned int request) {
    const planned_request what = plan(own_number, request);
    request_outcome &outcome = all[request];
    contexts[request] = {this, request, what.cmd};
    outcome.sent = ++moments;
    outcome.waited_ms = static_cast<std::uint32_t>(
        std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1));
    if (request % 50 == 0) {  // neither answered nor wanted
        vrd_ipc_send(ipc.get(), plugin.get(), 7, what.body.data(),
                     static_cast<unsigned int>(what.body.size()));
    }
    const int result = vrd_ipc_make_request(ipc.get(), plugin.get(), what.cmd, what.body.data(),
                                            static_cast<unsigned int>(what.body.size()), on_reply,
                                            &contexts[request], 60);
    if (result == 0) {
        ++unanswered;
    } else {
        outcome.status = result;
        outcome.ends = 1;
        --open;
        give_up();
    }
}

// Without a plug-in there is nobody to send the rest to.
void load_client::give_up() {
    open -= end - next;
    next = end;
}

void load_client::on_reply(int status, unsigned int cmd, const char *data, unsigned int len,
                           void *context) {
    const auto &ended = *static_cast<pending *>(context);
    load_client &self = *ended.client;
    request_outcome &outcome = self.all[ended.number];
    ++outcome.ends;
    outcome.status = status;
    outcome.ended = ++moments;
    outcome.waited_ms =
        static_cast<std::uint32_t>(std::chrono::steady_clock::now().time_since_epoch() /
                                   std::chrono::milliseconds(1)) -
        outcome.waited_ms;
    for (int code = 0; status >= 0 && code <= 4; ++code) {
        if (cmd == ended.cmd && std::string_view(data, len) == response_frame(code)) {
            outcome.code = code;
        }
    }
    --self.unanswered;
    if (status < 0) {
        self.give_up();
    }
    self.send_more();
    --self.open;
}
