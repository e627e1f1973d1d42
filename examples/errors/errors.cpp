// Errors: a result says that an operation has failed, and the last error of the thread says why. It prints:
//
//     error 10, about '/no/such/file'
//     it is one of files: yes
//     kept over the clean-up: 10
#include "qor/qor.h"

namespace {

// Fails as well, and must not hide the first error.
void clean_up() {
    const qorSaveErrorInfo kept;
    qorFile file;
    (void)file.Open("/no/such/folder/lock", qorFileReading | qorFileExisting);
    qorSetLastError(qorError_bad_password); // another error
}

bool read_settings(const char* path) {
    qorFile file;
    if (file.Open(path, qorFileReading | qorFileExisting))
        return true;
    clean_up();
    return false;
}

} // namespace

int main() {
    if (read_settings("/no/such/file"))
        return 1;
    qorString path;
    qorGetLastErrorInsert(1, path);
    zetSmartPointer<IQORErrorMessage> error;
    qorGetLastError(error.Out());
    fixed_fprintf(stdout, "error %u, about '%s'\n", error->GetErrorNumber(), path.Text());
    fixed_fprintf(stdout, "it is one of files: %s\n", error->GetErrorClass() == qorErrorClass::file ? "yes" : "no");
    qorString text;
    fixed_fprintf(stdout, "kept over the clean-up: %u\n", qorGetLastError(text));
    error->Put(stderr, true); // in the user's language
}
