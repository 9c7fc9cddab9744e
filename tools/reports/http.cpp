#include "tools/reports/http.h"

#include "tools/reports/access.h"
#include "tools/reports/connections.h"
#include "tools/reports/intake.h"
#include "tools/reports/metrics.h"
#include "tools/reports/pages.h"

#include <drogon/HttpAppFramework.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <sys/resource.h>
#include <thread>
#include <utility>

namespace corvo::reports {

namespace {

using drogon::HttpRequestPtr;
using drogon::HttpResponsePtr;
using reply_function = std::function<void(const HttpResponsePtr&)>;

constexpr std::string_view report_path = "/KestraneSprejem/sprejem/";
// What is a little too large is read to its end and refused; the client would take a cut connection for a reason to come again.
constexpr std::size_t times_largest = 4;
constexpr std::size_t most_pages_waiting = 64;
constexpr auto between_sweeps = std::chrono::seconds(1);

HttpResponsePtr respond(int status, const std::string& type, std::string body) {
    const HttpResponsePtr response = drogon::HttpResponse::newHttpResponse();
    response->setCustomStatusCode(status, status == 449 ? "Retry With" : status == 200 ? "OK" : "Not taken");
    response->setContentTypeString(type);
    response->setBody(std::move(body));
    return response;
}

HttpResponsePtr respond_page(int status, const std::string& text) {
    return respond(status, "text/html; charset=utf-8",
                   "<!DOCTYPE html><html lang=\"en\"><title>Error reports</title><p>" + text + "</p></html>");
}

HttpResponsePtr respond(const answer& given) {
    return respond(given.status, given.is_plain ? "text/plain; charset=utf-8" : "text/html; charset=utf-8",
                   given.text);
}

// Pages may take longer than a report, and must not keep any waiting: they have a thread of their own.
class page_thread {
public:
    page_thread() : m_thread([this] { work(); }) {}
    ~page_thread() {
        {
            const std::lock_guard lock(m_mutex);
            m_ends = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }
    page_thread(const page_thread&) = delete;
    page_thread& operator=(const page_thread&) = delete;

    bool add(std::function<void()> job) {
        {
            const std::lock_guard lock(m_mutex);
            if (m_jobs.size() >= most_pages_waiting) {
                return false;
            }
            m_jobs.push_back(std::move(job));
        }
        m_wake.notify_one();
        return true;
    }

private:
    void work() {
        for (;;) {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [this] { return m_ends || !m_jobs.empty(); });
            if (m_ends) {
                return;
            }
            const std::function<void()> job = std::move(m_jobs.front());
            m_jobs.pop_front();
            lock.unlock();
            job();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_jobs;
    bool m_ends = false;
    std::thread m_thread;
};

class server {
public:
    server(const http_settings& settings, intake& taken, pages* shown, access* allowed, metrics& counted)
        : m_settings(settings), m_intake(taken), m_pages(shown), m_access(allowed), m_metrics(counted) {}

    // What fails is answered here, so the reply remains with this function.
    void handle(const HttpRequestPtr& request, const reply_function& reply) {
        try {
            if (request->localAddr().toPort() == m_settings.reports.port) {
                take_report(request, reply);
            } else if (m_pages != nullptr) {
                show_page(request, reply);
            }
        } catch (const std::exception& error) {
            std::fprintf(stderr, "lumaris-reports: a request failed: %s\n", error.what());
            reply(respond(come_again()));
        }
    }

private:
    void take_report(const HttpRequestPtr& request, const reply_function& reply) {
        if (request->path() != report_path) {
            reply(respond_page(404, "There is nothing here."));
            return;
        }
        if (request->method() != drogon::Post) {
            reply(respond_page(405, "Error reports are posted."));
            return;
        }
        const std::string& wanted = request->getHeader("accept-language");
        if (request->bodyLength() > m_settings.largest_body) {
            m_metrics.count(outcome::too_large);
            reply(respond(refuse(413, language_of(wanted))));
            return;
        }
        std::string address = request->peerAddr().toIp();
        if (!m_settings.client_header.empty() && m_settings.proxies.contains(address)) {
            // The last one is the proxy's own; what stands before it the client may have written.
            const std::string& named = request->getHeader(m_settings.client_header);
            const std::size_t comma = named.rfind(',');
            const std::size_t begin =
                named.find_first_not_of(' ', comma == std::string::npos ? 0 : comma + 1);
            // 45 characters are the longest address (RFC 4291 section 2.2).
            if (begin != std::string::npos && named.size() - begin <= 45 &&
                named.find_first_not_of("0123456789abcdefABCDEF.:", begin) == std::string::npos) {
                address = named.substr(begin);
            }
        }
        m_intake.deliver({std::string(request->body()), std::move(address), wanted},
                         [reply](const answer& given) { reply(respond(given)); });
    }

    void show_page(const HttpRequestPtr& request, const reply_function& reply) {
        const std::string& path = request->path();
        if (path == "/style.css") {
            reply(respond(200, "text/css; charset=utf-8", std::string(style_sheet())));
            return;
        }
        // A password is slow to look at, on purpose, and must not keep reports waiting either.
        if (!m_page_thread.add([this, request, reply] { reply(answer_to(request)); })) {
            reply(respond_page(503, "Too many pages are asked for at the moment."));
        }
    }

    HttpResponsePtr answer_to(const HttpRequestPtr& request) {
        try {
            return look_and_make_page(request);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "lumaris-reports: a page cannot be shown: %s\n", error.what());
            return respond_page(503, "The page cannot be shown at the moment.");
        }
    }

    HttpResponsePtr look_and_make_page(const HttpRequestPtr& request) {
        const std::string& path = request->path();
        const bool is_from_proxy = m_settings.proxies.contains(request->peerAddr().toIp());
        if (path != "/healthz" && path != "/metrics" &&
            m_access
                ->user_of(request->getHeader("authorization"),
                          m_access->user_header().empty() || !is_from_proxy
                              ? std::string()
                              : request->getHeader(m_access->user_header()))
                .empty()) {
            const HttpResponsePtr refused = respond_page(401, "A name and a password are needed.");
            refused->addHeader("WWW-Authenticate", "Basic realm=\"Error reports\", charset=\"UTF-8\"");
            return refused;
        }
        if (request->method() == drogon::Post && !is_own_form(request)) {
            return respond_page(403, "The form comes from another site.");
        }
        if (request->method() != drogon::Post && request->method() != drogon::Get &&
            request->method() != drogon::Head) {
            return respond_page(405, "Pages are read or posted to.");
        }
        page_request asked{request->method() == drogon::Post ? "POST" : "GET", path, {}};
        for (const auto& [name, value] : request->getParameters()) {
            asked.parameters[name] = value;
        }
        return make_page(asked);
    }

    HttpResponsePtr make_page(const page_request& asked) {
        if (asked.path == "/healthz") {
            m_pages->ping();
            return respond(200, "text/plain; charset=utf-8", "ok\n");
        }
        if (asked.path == "/metrics") {
            const totals now = m_pages->count();
            return respond(200, "text/plain; version=0.0.4; charset=utf-8",
                           m_metrics.text() +
                               "# HELP lumaris_groups Groups of crashes.\n# TYPE lumaris_groups "
                               "gauge\nlumaris_groups " +
                               std::to_string(now.groups) +
                               "\n# HELP lumaris_crashes Crashes that were counted.\n# TYPE "
                               "lumaris_crashes gauge\nlumaris_crashes " +
                               std::to_string(now.reports) + "\n");
        }
        page made = m_pages->answer(asked);
        const HttpResponsePtr response = respond(made.status, made.type, std::move(made.body));
        response->addHeader("Content-Security-Policy",
                            "default-src 'none'; style-src 'self'; form-action 'self'; base-uri 'none'; "
                            "frame-ancestors 'none'");
        response->addHeader("X-Content-Type-Options", "nosniff");
        response->addHeader("Referrer-Policy", "same-origin");
        response->addHeader("Cache-Control", "no-store");
        if (!made.location.empty()) {
            response->addHeader("Location", made.location);
        }
        if (!made.file.empty()) {
            response->addHeader("Content-Disposition", "attachment; filename=\"" + made.file + "\"");
        }
        return response;
    }

    // Browsers say where a form comes from; what says nothing is not a browser, and has given a password of its own accord.
    static bool is_own_form(const HttpRequestPtr& request) {
        const std::string& site = request->getHeader("sec-fetch-site");
        if (!site.empty()) {
            return site == "same-origin";
        }
        const std::string& origin = request->getHeader("origin");
        const std::size_t scheme = origin.find("://");
        return origin.empty() ||
               (scheme != std::string::npos && origin.substr(scheme + 3) == request->getHeader("host"));
    }

    const http_settings& m_settings;
    intake& m_intake;
    pages* m_pages;
    access* m_access;
    metrics& m_metrics;
    page_thread m_page_thread;
};

connection connection_of(const trantor::InetAddress& peer, const trantor::InetAddress& local) {
    return reports::connection_of(*peer.getSockAddr(), *local.getSockAddr());
}

void cut_slow_senders(request_clocks& clocks, std::uint16_t pages_port, metrics& counted) {
    if (clocks.size() == 0) {
        return;
    }
    const auto listed = request_clocks::clock::now();
    const std::map<connection, int> open = open_connections();
    for (const connection& slow : clocks.take_overdue(open, listed, request_clocks::clock::now())) {
        const int descriptor = open.at(slow);
        if (slow.local_port == pages_port && is_being_read(descriptor)) {
            // An export on a slow line: nothing is asked for before it has come to its end.
            clocks.open(slow, request_clocks::clock::now());
            clocks.arrive(slow);
            clocks.answer(slow, request_clocks::clock::now());
        } else if (cut(slow, descriptor)) {
            counted.count_cut_request();
        }
    }
    counted.set_unfinished_connections(clocks.unfinished());
}

// Returns how many connections that is enough for.
std::size_t open_files_for(std::size_t connections) {
    constexpr rlim_t others = 200; // databases, symbols, bodies while they come in
    rlimit allowed{};
    if (::getrlimit(RLIMIT_NOFILE, &allowed) != 0) {
        return connections;
    }
    // A body that is large while it comes in is a file as well.
    allowed.rlim_cur = std::min<rlim_t>(allowed.rlim_max, 2 * connections + others);
    if (::setrlimit(RLIMIT_NOFILE, &allowed) != 0) {
        ::getrlimit(RLIMIT_NOFILE, &allowed);
    }
    return allowed.rlim_cur > 2 * others ? std::min<std::size_t>(connections, (allowed.rlim_cur - others) / 2)
                                         : 100;
}

} // namespace

void serve(const http_settings& settings, intake& taken, pages* shown, access* allowed, metrics& counted,
           const std::function<void()>& started) {
    server all(settings, taken, shown, allowed, counted);
    drogon::HttpAppFramework& app = drogon::app();
    const auto most_connections = static_cast<std::int64_t>(open_files_for(settings.most_connections));
    app.setLogLevel(trantor::Logger::kError)
        .setThreadNum(settings.threads)
        .setUploadPath(settings.folder)
        .setDocumentRoot(settings.folder + "/nothing")
        .setClientMaxBodySize(settings.largest_body * times_largest)
        .setClientMaxMemoryBodySize(std::size_t{256} * 1024)
        // The advice below counts those that it refuses; the framework's own limit is silent.
        .setMaxConnectionNum(settings.most_connections * 2)
        .setIdleConnectionTimeout(settings.idle_seconds)
        .enableServerHeader(false)
        .setStaticFilesCacheTime(0)
        .addListener(settings.reports.address, settings.reports.port);
    if (shown != nullptr) {
        app.addListener(settings.pages.address, settings.pages.port);
    }
    // Answers may come when this function has ended.
    const auto clocks = std::make_shared<request_clocks>(settings.request_limit);
    app.registerPreRoutingAdvice([&all, clocks](const HttpRequestPtr& request, drogon::AdviceCallback&& reply,
                                                drogon::AdviceChainCallback&&) {
        connection from = connection_of(request->peerAddr(), request->localAddr());
        clocks->arrive(from);
        all.handle(request, [clocks, from = std::move(from),
                             reply = std::move(reply)](const HttpResponsePtr& response) {
            clocks->answer(from, request_clocks::clock::now());
            reply(response);
        });
    });
    app.registerNewConnectionAdvice([&app, &counted, most_connections, clocks](
                                        const trantor::InetAddress& peer, const trantor::InetAddress& local) {
        if (app.getConnectionCount() <= most_connections) {
            clocks->open(connection_of(peer, local), request_clocks::clock::now());
            return true;
        }
        counted.count_refused_connection();
        return false;
    });
    app.registerBeginningAdvice([&app, &settings, &counted, &started, clocks] {
        app.getLoop()->runEvery(between_sweeps, [&settings, &counted, clocks] {
            cut_slow_senders(*clocks, settings.pages.port, counted);
        });
        started();
    });
    app.run();
}

} // namespace corvo::reports
