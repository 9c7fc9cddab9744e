#include "tools/proof/checks.h"
#include "tools/proof/files.h"

namespace proof {

void check_unit_tests(context& around, findings& found) {
    const std::wstring folder = around.fresh_temporary_folder();
    run_options options;
    options.limit = 900'000;
    const finished_run run =
        run_program(L"\"" + around.program(L"tests\\unit_tests.exe") + L"\" --gtest_output=json:\"" + folder +
                        L"unit_tests.json\" --gtest_catch_exceptions=0",
                    options);
    const nlohmann::json report = nlohmann::json::parse(read_file(folder + L"unit_tests.json"));
    std::string failed;
    int skipped = 0;
    for (const auto& suite : report["testsuites"]) {
        for (const auto& test : suite["testsuite"]) {
            if (test.contains("failures")) {
                failed += (failed.empty() ? "" : ", ") + suite["name"].get<std::string>() + "." +
                          test["name"].get<std::string>();
            }
            skipped += test.value("result", "") == "SKIPPED" ? 1 : 0;
        }
    }
    found.see("unit-tests.failed", "none", failed.empty() ? "none" : failed);
    found.see("unit-tests.exit", "0x00000000", exit_text(run));
    found.note("unit-tests.number",
               std::to_string(report["tests"].get<int>()) + ", of them skipped " + std::to_string(skipped));
}

} // namespace proof
