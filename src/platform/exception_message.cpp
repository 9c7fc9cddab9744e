#include "platform/exception_message.h"

namespace corvo {

std::string exception_message(const std::exception& error) {
    const char* text = error.what();
    std::string message = text != nullptr && *text != '\0' ? text : "Unknown exception";
    const auto* nesting = dynamic_cast<const std::nested_exception*>(&error);
    if (nesting != nullptr && nesting->nested_ptr() != nullptr) {
        message += ": ";
        try {
            nesting->rethrow_nested();
        } catch (const std::exception& inner) {
            message += exception_message(inner);
        } catch (...) {
            message += "Unknown exception";
        }
    }
    return message;
}

} // namespace corvo
