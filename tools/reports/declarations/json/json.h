// The names of jsoncpp that Drogon's headers mention, declared and not defined.
//
// Drogon is built with jsoncpp, its package does not bring jsoncpp's headers, and the server uses nothing of them: what is
// declared here is enough to read Drogon's headers, and anything that would need more does not link.
#pragma once

#include <string>

namespace Json {

enum ValueType {
    nullValue,
    intValue,
    uintValue,
    realValue,
    stringValue,
    booleanValue,
    arrayValue,
    objectValue
};

class Value {
public:
    Value& operator=(const char* text);
    ValueType type() const;
    long long asInt64() const;
    unsigned long long asUInt64() const;
    double asDouble() const;
    std::string asString() const;
    bool asBool() const;
};

class StreamWriterBuilder {
public:
    Value& operator[](const std::string& name);
};

std::string writeString(const StreamWriterBuilder& builder, const Value& value);

} // namespace Json
