// What the tests of containers share.
#pragma once

#include "qor/qor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qor::test {

inline uint32 last_error_number() {
    qorString text;
    return qorGetLastError(text);
}

inline std::string last_error_text() {
    qorString text;
    qorGetLastError(text);
    return text.Text();
}

// The stream form of an object.
template <class OBJECT>
std::string written(OBJECT&& object) {
    zetSmartPointer<IQORMemoryDataSink> sink;
    create_IQORMemoryDataSink(sink.Out());
    EXPECT_TRUE(object.Write(*sink));
    return {static_cast<const char*>(sink->GetData()), sink->GetSize()};
}

// Reads an object from bytes; with `all`, none may be left over.
template <class OBJECT>
bool read(OBJECT&& object, const std::string& bytes, bool all = true) {
    zetSmartPointer<IQORMemoryDataSource> source;
    create_IQORMemoryDataSource(bytes.data(), static_cast<uint32>(bytes.size()), source.Out());
    const bool done = object.Read(*source);
    if (done && all) {
        EXPECT_EQ(source->GetRemaining(), 0u);
    }
    return done;
}

// Every beginning of the stream form is refused and leaves the object as it is.
template <class OWNED>
void refuses_each_beginning(const OWNED& full) {
    const std::string bytes = written(*full.Interface());
    OWNED other(full);
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        EXPECT_FALSE(read(*other.Interface(), bytes.substr(0, length))) << length;
        EXPECT_TRUE(other == full) << length;
    }
    EXPECT_FALSE(read(*other.Interface(), "\x01" + bytes));
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_stream_form));
    std::string of_later_version = bytes;
    of_later_version[2] = 2;
    EXPECT_FALSE(read(*other.Interface(), of_later_version));
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_stream_form));
    EXPECT_TRUE(other == full);
}

} // namespace qor::test
