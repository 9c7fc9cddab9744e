// Times the product's check of a package that is on disk already.
//
//     present_package PACKAGE SIGNATURE RESULT

#include "bench/windows/measure.h"
#include "minisign/verifier.h"
#include "stream/file.h"
#include "updater/build_config.h"

int wmain(int count, wchar_t** arguments) {
    using namespace corvo;
    if (count != 4) {
        return 2;
    }
    const bench::stopwatch watch;
    stream::file signature_file(arguments[2], stream::mode_for_reading | stream::share_reading);
    const minisign::signature made = minisign::read_signature(signature_file);
    const minisign::trusted_key& key = minisign::find_trusted_key(made, corvo::build_config::trusted_keys,
                                                                  corvo::build_config::trusted_key_count);
    stream::file package(arguments[1],
                         stream::mode_for_reading | stream::share_reading | stream::hint_sequential_access);
    const bool right = minisign::content_verifies(package, made, key, nullptr);
    return bench::report(arguments[3], right, watch.seconds());
}
