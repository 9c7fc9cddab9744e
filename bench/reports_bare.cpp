// What the report server is compared with: a bare Drogon program that writes the same rows for each report, one transaction each, and
// answers. It reads nothing of a report: the group comes from the last byte but a few.
//
//     reports_bare PORT DATABASE FOLDER

#include "tools/reports/digest.h"
#include "tools/reports/store.h"

#include <drogon/HttpAppFramework.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <span>
#include <string>

int main(int count, char** arguments) {
    using namespace corvo::reports;
    if (count != 4) {
        std::fprintf(stderr, "usage: reports_bare PORT DATABASE FOLDER\n");
        return 2;
    }
    store where(open_database(arguments[2]));
    std::mutex lock;
    drogon::app()
        .setLogLevel(trantor::Logger::kError)
        .setThreadNum(2)
        .setUploadPath(arguments[3])
        .enableServerHeader(false)
        .addListener("127.0.0.1", static_cast<std::uint16_t>(std::atoi(arguments[1])))
        .registerPreRoutingAdvice([&](const drogon::HttpRequestPtr& request, drogon::AdviceCallback&& reply,
                                      drogon::AdviceChainCallback&&) {
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
            {
                const std::lock_guard guard(lock);
                where.keep({report});
            }
            const drogon::HttpResponsePtr response = drogon::HttpResponse::newHttpResponse();
            response->setContentTypeString("text/plain; charset=utf-8");
            response->setBody("Thank you for the report.");
            reply(response);
        })
        .run();
    return 0;
}
