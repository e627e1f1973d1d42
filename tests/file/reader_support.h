// Shared code of the tests of the line reader.
#pragma once

#include "qor/qor.h"
#include "support/last_error.h"
#include "support/scenes.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

namespace qor::test {

using reader_pointer = zetSmartPointer<IQORSimpleFileReader>;

inline std::string view(const qorString& text) { return {text.Text(), text.Length()}; }

inline reader_pointer make_reader() {
    reader_pointer reader;
    create_IQORSimpleFileReader(reader.Out());
    return reader;
}

inline words read_all(IQORSimpleFileReader* reader) {
    words lines;
    qorString line("what was there before");
    while (reader->ReadLine(line))
        lines.push_back(view(line));
    return lines;
}

// Base of the tests of the line reader; each has a folder of its own.
class reader_test : public testing::Test {
protected:
    const temp_folder m_folder;
};

} // namespace qor::test
