// Lines that must not compile with -Werror, each with a word of the expected error after "refused:"; refused_test.py
// reads these marks.
#include "qor/qor.h"

void strings(const qorString& text, const qorString& other) {
    if (text) // refused: deleted
        return;
    (void)!text;               // refused: deleted
    (void)(text + 1);          // refused: deleted
    (void)(1 + text);          // refused: deleted
    (void)(text + "x");        // refused: deleted
    (void)(text - "x");        // refused: deleted
    (void)("x" - text);        // refused: deleted
    (void)(text - other);      // refused: deleted
    (void)(text + other);      // refused: deleted
    const bool is_text = text; // refused: qorString
    (void)is_text;
    const void* const address = text; // refused: qorString
    (void)address;
    if (!text.IsEmpty() && text < other && text != "x")
        return;
}

// For virtual operations, only clang reports an ignored result.
void results(qorFile& file, qorString& text, char* buffer) {
    file.Open("name", qorFileReading);          // refused: nodiscard
    file.ReadAt(0, buffer, 1);                  // refused: nodiscard
    text.GetLine(stdin);                        // refused: nodiscard
    qorVerifyPassword("password", "hash");      // refused: nodiscard
    qor_do_malloc(0, 1);                        // refused: nodiscard
    qor_do_malloc(0, 1, true, "place", 1);      // refused: nodiscard
    qor_do_strdup("text");                      // refused: nodiscard
    zetSmartPointer<IQORDataSource>().Detach(); // refused: nodiscard
    (void)file.Open("name", qorFileReading | qorFileExisting | qorFileShared);
    qor_do_free(nullptr);
}
