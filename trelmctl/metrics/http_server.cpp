#include "http_server.h"

#include <sys/resource.h>

#include <algorithm>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "exposition.h"
#include "failure.h"

namespace trelmctl::metrics {
namespace {

constexpr unsigned kIdleSeconds = 5;  // below Prometheus' timeout: idle clients cannot make a scrape fail
constexpr std::size_t kConnectionMemory = 16384;  // the headers of a request must fit
constexpr rlim_t kMostConnections = 2000;
constexpr rlim_t kOtherDescriptors = 128;  // for the library, the drivers and this server

constexpr std::string_view kPlain = "text/plain; charset=utf-8";

// As many connections as there are descriptors.
unsigned connection_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 256;
    limit.rlim_cur = std::min(limit.rlim_max, std::max(limit.rlim_cur, kMostConnections + kOtherDescriptors));
    setrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t left =
        limit.rlim_cur > 2 * kOtherDescriptors ? limit.rlim_cur - kOtherDescriptors : kOtherDescriptors;
    return static_cast<unsigned>(std::min(left, kMostConnections));
}

std::string_view header(MHD_Connection* connection, const char* name) {
    const char* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value ? value : "";
}

struct Freed {
    void operator()(char* text) const { MHD_free(text); }
};
using MhdText = std::unique_ptr<char, Freed>;

Text fixed(const char* text) { return std::make_shared<const std::string>(text); }

void free_text(void* text) { delete static_cast<Text*>(text); }

// A response whose text may be shared with other responses.
MHD_Response* response_of(const Text& text) {
    auto owner = std::make_unique<Text>(text);
    // The text is not written to; the C interface has no const here.
    MHD_Response* const response = MHD_create_response_from_buffer_with_free_callback_cls(
        text->size(), const_cast<char*>(text->data()), free_text, owner.get());
    if (response) (void)owner.release();  // the response deletes it
    return response;
}

}  // namespace

// A request from its first header to the end of its response.
struct HttpServer::Request {
    enum class Admission : uint8_t { unknown, granted, denied };

    Admission admission = Admission::unknown;
    bool sampled = false;
    Text text;
};

struct HttpServer::Reply {
    unsigned status;
    Text text;
    std::string_view type = kPlain;
    const char* extra_header = nullptr;  // null: none
    const char* extra_value = nullptr;
};

// The callbacks of the C library. `self` is the server.
struct HttpServer::Callbacks {
    static MHD_Result answer(void* self, MHD_Connection* connection, const char* url, const char* method,
                             const char* /*version*/, const char* /*body*/, std::size_t* body_size,
                             void** context) {
        if (*context == nullptr) {
            *context = new (std::nothrow) Request;
            return *context ? MHD_YES : MHD_NO;
        }
        if (std::exchange(*body_size, 0) != 0) return MHD_YES;  // a body is read and discarded
        try {
            auto& request = *static_cast<Request*>(*context);
            return static_cast<HttpServer*>(self)->handle(connection, url, method, request);
        } catch (const std::exception&) {
            return MHD_NO;
        }
    }
    static void completed(void* self, MHD_Connection* connection, void** context,
                          MHD_RequestTerminationCode /*how*/) {
        delete static_cast<Request*>(std::exchange(*context, nullptr));
        static_cast<HttpServer*>(self)->clock_.start(connection);
    }
    static void noticed(void* self, MHD_Connection* connection, void** /*context*/,
                        MHD_ConnectionNotificationCode what) {
        ConnectionClock& clock = static_cast<HttpServer*>(self)->clock_;
        what == MHD_CONNECTION_NOTIFY_STARTED ? clock.start(connection) : clock.forget(connection);
    }
};

HttpServer::HttpServer(const ListenSocket& socket, const WebConfig& config, SharedSampling& sampling,
                       std::chrono::duration<double> request_time)
    : config_(config), sampling_(sampling), users_(config.users), clock_(request_time) {
    const bool tls = !config_.certificate.empty();
    // The texts are not written to; the C interface has no const here.
    const auto text_option = [](MHD_OPTION option, const std::string& text) {
        return MHD_OptionItem{option, 0, const_cast<char*>(text.c_str())};
    };
    std::vector<MHD_OptionItem> tls_options;
    if (tls) {
        tls_options.push_back(text_option(MHD_OPTION_HTTPS_MEM_CERT, config_.certificate));
        tls_options.push_back(text_option(MHD_OPTION_HTTPS_MEM_KEY, config_.key));
        tls_options.push_back(text_option(MHD_OPTION_HTTPS_PRIORITIES, config_.priorities));
    }
    tls_options.push_back({MHD_OPTION_END, 0, nullptr});
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME;
    if (tls) flags |= MHD_USE_TLS;
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &Callbacks::answer, this,      //
                               MHD_OPTION_LISTEN_SOCKET, socket.fd(),                     //
                               MHD_OPTION_CONNECTION_LIMIT, connection_limit(),           //
                               MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds,               //
                               MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory,     //
                               MHD_OPTION_NOTIFY_COMPLETED, &Callbacks::completed, this,  //
                               MHD_OPTION_NOTIFY_CONNECTION, &Callbacks::noticed, this,   //
                               MHD_OPTION_ARRAY, tls_options.data(), MHD_OPTION_END);
    if (daemon_) return;
    Failure failure = tool_failure("SERVER", "the server cannot be started",
                                   tls ? "check that the certificate and the key belong together" : "");
    failure.operation = "listening";
    throw CommandFailed(std::move(failure));
}

HttpServer::~HttpServer() {
    sampling_.stop();
    users_.stop();
    MHD_stop_daemon(daemon_);
}

MHD_Result HttpServer::handle(MHD_Connection* connection, std::string_view url, std::string_view method,
                              Request& request) {
    MHD_Result result = MHD_NO;
    if (!admit(connection, request, result)) return result;
    if (method != "GET" && method != "HEAD")
        return send(connection, {MHD_HTTP_METHOD_NOT_ALLOWED, fixed("Only GET and HEAD are supported.\n"),
                                 kPlain, "Allow", "GET, HEAD"});
    if (url == "/healthz") return send(connection, {MHD_HTTP_OK, fixed("ok\n")});
    if (url == "/") return serve_sample(connection, Form::page, request);
    if (url != "/metrics")
        return send(connection, {MHD_HTTP_NOT_FOUND, fixed("The paths are /metrics, /healthz and /.\n")});
    const bool openmetrics =
        header(connection, "Accept").find("application/openmetrics-text") != std::string_view::npos;
    return serve_sample(connection, openmetrics ? Form::openmetrics : Form::prometheus, request);
}

bool HttpServer::admit(MHD_Connection* connection, Request& request, MHD_Result& result) {
    if (users_.none() || request.admission == Request::Admission::granted) return true;
    char* password = nullptr;
    const MhdText name(MHD_basic_auth_get_username_password(connection, &password));
    const MhdText password_owner(password);
    const bool given = name && password && request.admission == Request::Admission::unknown;
    if (given && users_.remembers(name.get(), password)) {
        request.admission = Request::Admission::granted;
        return true;
    }
    if (!given) {
        result = send(connection, {MHD_HTTP_UNAUTHORIZED, fixed("A user name and a password are required.\n"),
                                   kPlain, "WWW-Authenticate", "Basic realm=\"trelmctl\""});
        return false;
    }
    MHD_suspend_connection(connection);
    const auto answer = [connection, &request](bool admitted) {
        request.admission = admitted ? Request::Admission::granted : Request::Admission::denied;
        MHD_resume_connection(connection);
    };
    if (!users_.check(name.get(), password, answer)) answer(false);
    result = MHD_YES;
    return false;
}

MHD_Result HttpServer::serve_sample(MHD_Connection* connection, Form form, Request& request) {
    if (!request.sampled) {
        MHD_suspend_connection(connection);
        const auto deliver = [connection, &request](const Text& text) {
            request.text = text;
            request.sampled = true;
            MHD_resume_connection(connection);
        };
        if (!sampling_.request(form, deliver)) deliver(nullptr);
        return MHD_YES;
    }
    if (!request.text)
        return send(connection, {MHD_HTTP_SERVICE_UNAVAILABLE, fixed("No sample is available.\n")});
    if (form != Form::page) {
        const Format format = form == Form::openmetrics ? Format::openmetrics : Format::prometheus;
        return send(connection, {MHD_HTTP_OK, request.text, content_type(format), "Vary", "Accept"});
    }
    return send(connection, {MHD_HTTP_OK, request.text, "text/html; charset=utf-8", "Content-Security-Policy",
                             "default-src 'none'; style-src 'unsafe-inline'"});
}

MHD_Result HttpServer::send(MHD_Connection* connection, const Reply& reply) const {
    MHD_Response* const response = response_of(reply.text);
    if (!response) return MHD_NO;
    MHD_add_response_header(response, "Content-Type", std::string(reply.type).c_str());
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(response, "Cache-Control", "no-store");
    if (reply.extra_header) MHD_add_response_header(response, reply.extra_header, reply.extra_value);
    for (const auto& [name, value] : config_.headers)
        MHD_add_response_header(response, name.c_str(), value.c_str());
    const MHD_Result queued = MHD_queue_response(connection, reply.status, response);
    MHD_destroy_response(response);
    return queued;
}

}  // namespace trelmctl::metrics
