// What the report server is compared with: a bare Drogon program that writes the same rows for each report and answers. It reads nothing
// of a report: the group comes from the digest. "each" is one transaction a report, which is what a program without a queue does;
// "together" writes what has arrived meanwhile in one transaction, as the server does. Both wait for the disk before they answer.
//
//     reports_bare PORT DATABASE FOLDER each|together

#include "tools/reports/digest.h"
#include "tools/reports/store.h"

#include <drogon/HttpAppFramework.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace corvo::reports;
using reply_function = std::function<void(const drogon::HttpResponsePtr&)>;

new_report report_from(const drogon::HttpRequestPtr& request) {
    new_report report{};
    const std::span<const std::byte> bytes =
        std::as_bytes(std::span(request->bodyData(), request->bodyLength()));
    report.body.assign(bytes.begin(), bytes.end());
    report.digest = digest_of(bytes);
    report.common = report.digest;
    report.received = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
    report.address = request->peerAddr().toIp();
    report.language = "en";
    report.machine = "ARM64";
    report.code = 0xC0000005;
    const unsigned group = std::to_integer<unsigned>(report.digest.front()) % 100;
    report.what = {"group " + std::to_string(group), "group", "", true, "halvoro.exe", 7};
    return report;
}

void thank(const reply_function& reply) {
    const drogon::HttpResponsePtr response = drogon::HttpResponse::newHttpResponse();
    response->setContentTypeString("text/plain; charset=utf-8");
    response->setBody("Thank you for the report.");
    reply(response);
}

// Lives as long as the process.
class writer {
public:
    explicit writer(store& where) : m_store(where) {
        std::thread([this] { work(); }).detach();
    }

    void add(new_report report, reply_function reply) {
        {
            const std::lock_guard guard(m_lock);
            m_reports.push_back(std::move(report));
            m_replies.push_back(std::move(reply));
        }
        m_wake.notify_one();
    }

private:
    [[noreturn]] void work() {
        for (;;) {
            std::vector<new_report> reports;
            std::vector<reply_function> replies;
            {
                std::unique_lock guard(m_lock);
                m_wake.wait(guard, [this] { return !m_reports.empty(); });
                std::swap(reports, m_reports);
                std::swap(replies, m_replies);
            }
            m_store.keep(reports);
            for (const reply_function& reply : replies) {
                thank(reply);
            }
        }
    }

    store& m_store;
    std::mutex m_lock;
    std::condition_variable m_wake;
    std::vector<new_report> m_reports;
    std::vector<reply_function> m_replies;
};

} // namespace

int main(int count, char** arguments) {
    if (count != 5) {
        std::fprintf(stderr, "usage: reports_bare PORT DATABASE FOLDER each|together\n");
        return 2;
    }
    const bool is_together = std::string_view(arguments[4]) == "together";
    store where(open_database(arguments[2]));
    writer together(where);
    std::mutex lock;
    drogon::app()
        .setLogLevel(trantor::Logger::kError)
        .setThreadNum(2)
        .setUploadPath(arguments[3])
        .enableServerHeader(false)
        .addListener("127.0.0.1", static_cast<std::uint16_t>(std::atoi(arguments[1])))
        .registerPreRoutingAdvice([&](const drogon::HttpRequestPtr& request, drogon::AdviceCallback&& reply,
                                      drogon::AdviceChainCallback&&) {
            new_report report = report_from(request);
            if (is_together) {
                together.add(std::move(report), std::move(reply));
                return;
            }
            {
                const std::lock_guard guard(lock);
                where.keep({std::move(report)});
            }
            thank(reply);
        })
        .run();
    return 0;
}
