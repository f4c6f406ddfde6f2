#include "usbip_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <fstream>
#include <list>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

enum : uint16_t { USBIP_VERSION = 0x0111 };
enum : uint16_t { OP_REQ_IMPORT = 0x8003, OP_REP_IMPORT = 3, OP_REQ_DEVLIST = 0x8005, OP_REP_DEVLIST = 5 };
enum : uint32_t { CMD_SUBMIT = 1, CMD_UNLINK = 2, RET_SUBMIT = 3, RET_UNLINK = 4 };
enum : uint32_t { BUS_NUM = 1, DEV_NUM = 2, DEV_ID = BUS_NUM << 16 | DEV_NUM };

constexpr char BUS_ID[] = "1-1";
constexpr size_t HEAD_BYTES = 48, DEVICE_BYTES = 312, BUS_ID_BYTES = 32;
constexpr uint32_t URB_MAX = 16u << 20, SHORT_NOT_OK = 1;
constexpr int POLL_MS = 100;
constexpr char VHCI[] = "/sys/devices/platform/vhci_hcd.0/";

uint64_t _now_us()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

void _put16(uint8_t *p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

void _put32(uint8_t *p, uint32_t v)
{
    _put16(p, v >> 16);
    _put16(p + 2, v & 0xFFFF);
}

uint32_t _get32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
}

void _tell(const usbip_server_t *server, const std::string &line)
{
    if (server->tell != nullptr)
        server->tell(line.c_str());
}

// ---- Sockets ------------------------------------------------------------------------------------------

bool _send_all(int fd, const uint8_t *data, size_t len)
{
    while (len > 0) {
        const ssize_t n = send(fd, data, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// False when the other side is gone, or the server stops before all bytes are here.
bool _recv_all(const usbip_server_t *server, int fd, uint8_t *data, size_t len)
{
    while (len > 0) {
        pollfd wait = {fd, POLLIN, 0};
        const int ready = poll(&wait, 1, POLL_MS);
        if (server->stop.load(std::memory_order_relaxed) || (ready < 0 && errno != EINTR))
            return false;
        if (ready <= 0)
            continue;
        const ssize_t n = recv(fd, data, len, 0);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// ---- One kernel's URBs --------------------------------------------------------------------------------

typedef struct urb_t {
    uint32_t seqnum, ep, flags, len;
    std::vector<uint8_t> data; // bytes that have arrived for the host
} urb_t;

// An answer that leaves later.
typedef struct late_t {
    uint64_t due_us;
    uint32_t seqnum, ep;
    bool in;
    std::vector<uint8_t> bytes;
} late_t;

typedef struct session_t {
    usbip_server_t *server;
    int fd;
    std::deque<urb_t> in;        // of the bulk IN endpoint, oldest first
    std::set<uint32_t> hung;     // will not be answered
    std::deque<late_t> late;     // in the order in which they leave
    std::vector<uint8_t> out;    // of the URB that is being read
    std::vector<uint8_t> answer; // room for an answer of the bulk IN endpoint, head and data
} session_t;

void _put_ret_submit(uint8_t head[HEAD_BYTES], uint32_t seqnum, int status, uint32_t actual)
{
    memset(head, 0, HEAD_BYTES);
    _put32(head, RET_SUBMIT);
    _put32(head + 4, seqnum);
    _put32(head + 20, static_cast<uint32_t>(status));
    _put32(head + 24, actual);
}

std::vector<uint8_t> _ret_submit(uint32_t seqnum, int status, uint32_t actual, const uint8_t *data,
                                 size_t len)
{
    std::vector<uint8_t> bytes(HEAD_BYTES + len);
    _put_ret_submit(bytes.data(), seqnum, status, actual);
    std::copy(data, data + len, bytes.begin() + HEAD_BYTES);
    return bytes;
}

bool _answer(session_t *s, uint32_t seqnum, uint32_t ep, bool in, std::vector<uint8_t> bytes,
             uint32_t delay_us)
{
    if (delay_us == 0)
        return _send_all(s->fd, bytes.data(), bytes.size());
    s->late.push_back({_now_us() + delay_us, seqnum, ep, in, std::move(bytes)});
    return true;
}

// Host controllers report a short transfer as an error where the driver asked for it.
int _status_in(const urb_t &urb, const vcam_reply_t &reply, size_t actual)
{
    if (reply.result == VCAM_STALL)
        return -EPIPE;
    return (urb.flags & SHORT_NOT_OK) != 0 && actual < urb.len ? -EREMOTEIO : 0;
}

// An IN URB waits for the camera, and no late answer stands before it.
bool _in_wanted(const session_t *s)
{
    return !s->in.empty() && std::none_of(s->late.begin(), s->late.end(),
                                          [](const late_t &late) { return late.in && late.ep != 0; });
}

// Gives the oldest waiting IN URB what the camera has; one at a time, so that no command waits for many.
// False when the session is over.
bool _serve_in(session_t *s)
{
    if (!_in_wanted(s))
        return true;
    urb_t &urb = s->in.front();
    const uint32_t room = urb.len - static_cast<uint32_t>(urb.data.size());
    s->answer.resize(std::max<size_t>(s->answer.size(), HEAD_BYTES + room));
    uint8_t *data = s->answer.data() + HEAD_BYTES;
    const vcam_reply_t reply = vcam_bulk_in(s->server->cam, data, room, _now_us());
    const bool waits = reply.result == VCAM_NOT_YET || reply.result == VCAM_MORE || reply.result == VCAM_HANG;
    if (reply.result == VCAM_GONE)
        return false;
    if (waits || reply.delay_us != 0 || !urb.data.empty())
        urb.data.insert(urb.data.end(), data, data + reply.actual);
    if (waits)
        return true;
    const size_t actual = std::max<size_t>(urb.data.size(), reply.actual);
    const int status = _status_in(urb, reply, actual);
    bool sent;
    if (urb.data.empty()) { // the usual case: the bytes go out from where they came in
        _put_ret_submit(s->answer.data(), urb.seqnum, status, reply.actual);
        sent = _send_all(s->fd, s->answer.data(), HEAD_BYTES + reply.actual);
    } else {
        sent =
            _answer(s, urb.seqnum, urb.ep, true,
                    _ret_submit(urb.seqnum, status, static_cast<uint32_t>(actual), urb.data.data(), actual),
                    reply.delay_us);
    }
    s->in.pop_front();
    return sent;
}

bool _submit_control(session_t *s, const urb_t &urb, bool in, const uint8_t setup[8])
{
    // The wire's length and the request's may differ; neither is trusted alone.
    const uint32_t asked = setup[6] | setup[7] << 8;
    std::vector<uint8_t> data(std::max<size_t>({asked, urb.len, s->out.size()}), 0);
    std::copy(s->out.begin(), s->out.end(), data.begin());
    const bool standard = (setup[0] & 0x60) == 0;
    if (in != ((setup[0] & 0x80) != 0) && asked != 0)
        return _answer(s, urb.seqnum, 0, in, _ret_submit(urb.seqnum, -EPIPE, 0, nullptr, 0), 0);
    const vcam_reply_t reply = standard
                                   ? usb_standard_request(&s->server->usb, s->server->cam, setup, data.data())
                                   : vcam_control(s->server->cam, setup, data.data(), _now_us());
    if (reply.result == VCAM_GONE)
        return false;
    if (reply.result == VCAM_HANG || reply.result == VCAM_NOT_YET || reply.result == VCAM_MORE) {
        s->hung.insert(urb.seqnum);
        return true;
    }
    const uint32_t actual = reply.result == VCAM_STALL ? 0 : std::min(reply.actual, urb.len);
    return _answer(s, urb.seqnum, 0, in,
                   _ret_submit(urb.seqnum, reply.result == VCAM_STALL ? -EPIPE : 0, actual, data.data(),
                               in ? actual : 0),
                   reply.delay_us);
}

bool _submit_bulk_out(session_t *s, const urb_t &urb)
{
    const vcam_reply_t reply = vcam_bulk_out(s->server->cam, s->out.data(), urb.len, _now_us());
    if (reply.result == VCAM_GONE)
        return false;
    if (reply.result == VCAM_HANG) {
        s->hung.insert(urb.seqnum);
        return true;
    }
    return _answer(s, urb.seqnum, urb.ep, false,
                   _ret_submit(urb.seqnum, reply.result == VCAM_STALL ? -EPIPE : 0, reply.actual, nullptr, 0),
                   reply.delay_us);
}

// A URB is taken back. Bytes that it already has go out first: the answer to a cancel carries none.
bool _unlink(session_t *s, uint32_t seqnum, uint32_t target)
{
    int status = 0;
    const auto in =
        std::find_if(s->in.begin(), s->in.end(), [=](const urb_t &u) { return u.seqnum == target; });
    const auto late =
        std::find_if(s->late.begin(), s->late.end(), [=](const late_t &l) { return l.seqnum == target; });
    if (in != s->in.end()) {
        const std::vector<uint8_t> &had = in->data;
        if (had.empty())
            status = -ECONNRESET;
        else if (!_answer(s, target, in->ep, true,
                          _ret_submit(target, -ECONNRESET, static_cast<uint32_t>(had.size()), had.data(),
                                      had.size()),
                          0))
            return false;
        s->in.erase(in);
    } else if (late != s->late.end()) {
        s->late.erase(late);
        status = -ECONNRESET;
    } else if (s->hung.erase(target) > 0) {
        status = -ECONNRESET;
    }
    uint8_t head[HEAD_BYTES] = {};
    _put32(head, RET_UNLINK);
    _put32(head + 4, seqnum);
    _put32(head + 20, static_cast<uint32_t>(status));
    return _send_all(s->fd, head, sizeof head);
}

// Reads one request and does what it says. USBIP_STOPPED here means: go on.
usbip_end_t _take_request(session_t *s)
{
    uint8_t head[HEAD_BYTES];
    if (!_recv_all(s->server, s->fd, head, sizeof head))
        return USBIP_CLOSED;
    const uint32_t command = _get32(head), seqnum = _get32(head + 4), ep = _get32(head + 16);
    const bool in = _get32(head + 12) == 1;
    if (command == CMD_UNLINK)
        return _unlink(s, seqnum, _get32(head + 20)) ? USBIP_STOPPED : USBIP_CLOSED;
    const uint32_t len = _get32(head + 24), packets = _get32(head + 32);
    if (command != CMD_SUBMIT || _get32(head + 12) > 1 || ep > 15 || len > URB_MAX ||
        (packets != 0 && packets != 0xFFFFFFFF))
        return USBIP_BROKEN;
    s->out.resize(in ? 0 : len);
    if (!in && !_recv_all(s->server, s->fd, s->out.data(), len))
        return USBIP_CLOSED;

    urb_t urb = {seqnum, ep, _get32(head + 20), len, {}};
    bool on = true;
    if (ep == 0)
        on = _submit_control(s, urb, in, head + 40);
    else if (in && ep == (USB_EP_IN & 0x0F))
        s->in.push_back(std::move(urb));
    else if (!in && ep == USB_EP_OUT)
        on = _submit_bulk_out(s, urb);
    else
        on = _answer(s, seqnum, ep, in, _ret_submit(seqnum, -EPIPE, 0, nullptr, 0), 0);
    return on ? USBIP_STOPPED : vcam_plug_state(s->server->cam) == VCAM_PLUGGED ? USBIP_CLOSED : USBIP_GONE;
}

} // namespace

usbip_end_t usbip_session(usbip_server_t *server, int fd)
{
    session_t s = {server, fd, {}, {}, {}, {}, {}};
    while (!server->stop.load(std::memory_order_relaxed)) {
        if (vcam_plug_state(server->cam) != VCAM_PLUGGED)
            return USBIP_GONE;
        const uint64_t now = _now_us();
        uint64_t wake = now + POLL_MS * 1000;
        if (_in_wanted(&s))
            wake = std::min(wake, vcam_wake_us(server->cam, now));
        if (!s.late.empty())
            wake = std::min(wake, std::max(now, s.late.front().due_us));
        const timespec timeout = {0, static_cast<long>((wake - now) * 1000)};
        pollfd wait = {fd, POLLIN, 0};
        const int ready = ppoll(&wait, 1, &timeout, nullptr);
        if (ready < 0 && errno != EINTR)
            return USBIP_CLOSED;
        if (ready > 0) {
            const usbip_end_t end = _take_request(&s);
            if (end != USBIP_STOPPED)
                return server->stop.load(std::memory_order_relaxed) ? USBIP_STOPPED : end;
        }
        while (!s.late.empty() && s.late.front().due_us <= _now_us()) {
            if (!_send_all(fd, s.late.front().bytes.data(), s.late.front().bytes.size()))
                return USBIP_CLOSED;
            s.late.pop_front();
        }
        if (!_serve_in(&s))
            return vcam_plug_state(server->cam) == VCAM_PLUGGED ? USBIP_CLOSED : USBIP_GONE;
    }
    return USBIP_STOPPED;
}

// ---- TCP ----------------------------------------------------------------------------------------------

namespace {

// The record of the camera in lists and imports.
void _put_device(const usbip_server_t *server, uint8_t out[DEVICE_BYTES])
{
    memset(out, 0, DEVICE_BYTES);
    snprintf(reinterpret_cast<char *>(out), 256, "/sys/devices/tqcam-sim/usb1/%s", BUS_ID);
    memcpy(out + 256, BUS_ID, sizeof BUS_ID);
    _put32(out + 288, BUS_NUM);
    _put32(out + 292, DEV_NUM);
    _put32(out + 296, server->usb.speed);
    _put16(out + 300, USB_CAMERA_VENDOR);
    _put16(out + 302, USB_CAMERA_PRODUCT);
    _put16(out + 304, 0x0100);
    out[309] = server->usb.configuration;
    out[310] = 1;
    out[311] = server->usb.decoy ? 2 : 1;
}

bool _reply_list(const usbip_server_t *server, int fd)
{
    const bool listed = !server->in_use.load() && vcam_plug_state(server->cam) == VCAM_PLUGGED;
    std::vector<uint8_t> bytes(12, 0);
    _put16(&bytes[0], USBIP_VERSION);
    _put16(&bytes[2], OP_REP_DEVLIST);
    _put32(&bytes[8], listed ? 1 : 0);
    if (listed) {
        const size_t interfaces = server->usb.decoy ? 2 : 1;
        bytes.resize(bytes.size() + DEVICE_BYTES);
        _put_device(server, &bytes[12]);
        for (size_t i = 0; i < interfaces; i++)
            bytes.insert(bytes.end(), {0xFF, 0, 0, 0});
    }
    return _send_all(fd, bytes.data(), bytes.size());
}

// The camera came back to the bus, or is fresh for the next kernel.
bool _return_to_bus(usbip_server_t *server, usbip_end_t end)
{
    if (end == USBIP_GONE && vcam_plug_state(server->cam) == VCAM_PULLED) {
        _tell(server, "the camera was pulled out");
        if (server->replug_ms == 0)
            return false;
        for (uint32_t ms = 0; ms < server->replug_ms && !server->stop.load(); ms += 20)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        _tell(server, "the camera was plugged in again");
    } else if (end == USBIP_GONE) {
        server->usb.speed = server->speed_after_reset;
        _tell(server, "the camera's interface was reset");
    }
    server->usb.configuration = 0;
    vcam_plug_in(server->cam);
    return true;
}

void _serve_import(usbip_server_t *server, int fd)
{
    uint8_t bus_id[BUS_ID_BYTES], bytes[8 + DEVICE_BYTES] = {};
    if (!_recv_all(server, fd, bus_id, sizeof bus_id))
        return;
    bool expected = false;
    const bool ok = strncmp(reinterpret_cast<char *>(bus_id), BUS_ID, sizeof bus_id) == 0 &&
                    vcam_plug_state(server->cam) == VCAM_PLUGGED &&
                    server->in_use.compare_exchange_strong(expected, true);
    _put16(&bytes[0], USBIP_VERSION);
    _put16(&bytes[2], OP_REP_IMPORT);
    _put32(&bytes[4], ok ? 0 : 1);
    _put_device(server, bytes + 8);
    if (!ok) {
        _send_all(fd, bytes, 8);
        return;
    }
    if (_send_all(fd, bytes, sizeof bytes)) {
        _tell(server, "attached");
        const usbip_end_t end = usbip_session(server, fd);
        _tell(server, end == USBIP_BROKEN ? "detached: what came made no sense" : "detached");
        shutdown(fd, SHUT_RDWR); // the kernel drops the device at once, not when the camera is back
        _return_to_bus(server, end);
    }
    server->in_use.store(false);
}

void _serve_connection(usbip_server_t *server, int fd)
{
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    uint8_t head[8];
    if (!_recv_all(server, fd, head, sizeof head))
        return;
    const uint32_t code = static_cast<uint32_t>(head[2] << 8 | head[3]);
    if (code == OP_REQ_DEVLIST)
        _reply_list(server, fd);
    else if (code == OP_REQ_IMPORT)
        _serve_import(server, fd);
}

} // namespace

int usbip_listen(const char *host, uint16_t port, std::string *error)
{
    addrinfo hints = {}, *found = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    const std::string service = std::to_string(port), place = std::string(host) + " port " + service;
    const int r = getaddrinfo(host, service.c_str(), &hints, &found);
    if (r != 0) {
        *error = "can't listen at " + place + ": " + gai_strerror(r);
        return -1;
    }
    const int on = 1, fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0)
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const bool ok = fd >= 0 && bind(fd, found->ai_addr, found->ai_addrlen) == 0 && listen(fd, 4) == 0;
    if (!ok)
        *error = "can't listen at " + place + ": " + strerror(errno);
    freeaddrinfo(found);
    if (!ok && fd >= 0)
        close(fd);
    return ok ? fd : -1;
}

void usbip_serve(usbip_server_t *server, int listen_fd)
{
    struct connection_t {
        std::thread thread;
        std::atomic<bool> done{false};
    };
    std::list<connection_t> connections;
    const auto reap = [&connections](bool all) {
        for (auto c = connections.begin(); c != connections.end();) {
            if (!all && !c->done.load()) {
                ++c;
                continue;
            }
            c->thread.join();
            c = connections.erase(c);
        }
    };
    while (!server->stop.load()) {
        pollfd wait = {listen_fd, POLLIN, 0};
        if (poll(&wait, 1, POLL_MS) > 0 && connections.size() < 16) {
            const int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                connection_t &c = connections.emplace_back();
                c.thread = std::thread([server, fd, &c] {
                    _serve_connection(server, fd);
                    close(fd);
                    c.done.store(true);
                });
            }
        }
        reap(false);
    }
    reap(true);
}

// ---- The kernel of this machine -----------------------------------------------------------------------

int usbip_free_port(const std::string &status, usb_speed_t speed, int port)
{
    // A line: hub ("hs" or "ss"), port, state (4 is free), speed, device, socket, bus id.
    const std::string hub_due = speed >= USB_SPEED_SUPER ? "ss" : "hs";
    std::istringstream lines(status);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string hub;
        int number = -1, state = -1;
        if (words >> hub >> number >> state && hub == hub_due && state == 4 && (port < 0 || port == number))
            return number;
    }
    return -1;
}

namespace {

std::string _read_status()
{
    // Further controllers of the module have files of their own; one is enough here.
    std::ifstream file(std::string(VHCI) + "status");
    return {std::istreambuf_iterator<char>(file), {}};
}

// Gives a connected socket to the kernel. Returns the port, or -1 with a sentence.
int _attach(int fd, usb_speed_t speed, int port, std::string *error)
{
    int free_port = -1;
    for (int tries = 0; tries < 100 && free_port < 0; tries++) { // the old device may still be going
        const std::string status = _read_status();
        if (status.empty()) {
            *error = std::string("no ") + VHCI + "status: load the module with \"modprobe vhci-hcd\" first";
            return -1;
        }
        free_port = usbip_free_port(status, speed, port);
        if (free_port < 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (free_port < 0) {
        *error = "vhci-hcd has no free port";
        return -1;
    }
    const std::string text = std::to_string(free_port) + " " + std::to_string(fd) + " " +
                             std::to_string(DEV_ID) + " " + std::to_string(speed);
    const int file = open((std::string(VHCI) + "attach").c_str(), O_WRONLY | O_CLOEXEC);
    const bool ok = file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!ok)
        *error = std::string("can't attach to vhci-hcd: ") + strerror(errno);
    if (file >= 0)
        close(file);
    return ok ? free_port : -1;
}

} // namespace

bool usbip_attach_local(usbip_server_t *server, std::string *error)
{
    int port = -1;
    while (!server->stop.load()) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
            *error = std::string("no socket: ") + strerror(errno);
            return false;
        }
        const usb_speed_t speed = server->usb.speed;
        // Another speed may live on another hub.
        port = _attach(pair[1], speed, port, error);
        close(pair[1]);
        if (port < 0) {
            close(pair[0]);
            return false;
        }
        _tell(server, "attached to port " + std::to_string(port));
        const usbip_end_t end = usbip_session(server, pair[0]);
        close(pair[0]);
        if (end == USBIP_CLOSED && vcam_plug_state(server->cam) == VCAM_PLUGGED) {
            *error = "the kernel let the camera go";
            return false;
        }
        if (end == USBIP_BROKEN) {
            *error = "what the kernel sent made no sense";
            return false;
        }
        if (end == USBIP_STOPPED || !_return_to_bus(server, end))
            return true;
        if ((speed >= USB_SPEED_SUPER) != (server->usb.speed >= USB_SPEED_SUPER))
            port = -1;
    }
    return true;
}
