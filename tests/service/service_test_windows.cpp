// Services of Windows: this program registers itself as a service, and the service behaves as its name says.
#include "qor/qor.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <windows.h> // before winsvc.h

#include <winsvc.h>

namespace {

using qor::test::last_error;

// ---- the service

SERVICE_STATUS_HANDLE s_handle;
HANDLE s_stop;
DWORD s_state = SERVICE_START_PENDING;

void report(DWORD state, DWORD code = 0, DWORD own_code = 0) {
    s_state = state;
    SERVICE_STATUS status = {SERVICE_WIN32_OWN_PROCESS, state, SERVICE_ACCEPT_STOP, code, own_code, 0, 0};
    if (state == SERVICE_START_PENDING)
        status.dwControlsAccepted = 0;
    SetServiceStatus(s_handle, &status);
}

DWORD WINAPI control(DWORD code, DWORD, void*, void*) {
    if (code == SERVICE_CONTROL_STOP) {
        report(SERVICE_STOP_PENDING);
        SetEvent(s_stop);
    } else if (code == SERVICE_CONTROL_INTERROGATE) {
        report(s_state);
    }
    return NO_ERROR;
}

void WINAPI run(DWORD, wchar_t** words) {
    const std::wstring name = words[0];
    s_handle = RegisterServiceCtrlHandlerExW(name.c_str(), &control, nullptr);
    report(SERVICE_START_PENDING);
    if (name.find(L"fails") != std::wstring::npos) {
        report(SERVICE_STOPPED, ERROR_FILE_NOT_FOUND);
        return;
    }
    if (name.find(L"reports") != std::wstring::npos) {
        report(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 4711);
        return;
    }
    if (name.find(L"stuck") == std::wstring::npos)
        report(SERVICE_RUNNING);
    // Nobody stops one that is stuck.
    WaitForSingleObject(s_stop, name.find(L"stuck") == std::wstring::npos ? INFINITE : 5000);
    report(SERVICE_STOPPED);
}

// Serves if the manager has started this program with the word of our services.
const bool s_serves = [] {
    if (std::wcsstr(GetCommandLineW(), L"--as-a-service") == nullptr)
        return false;
    s_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    wchar_t empty[] = L"";
    const SERVICE_TABLE_ENTRYW table[] = {{empty, &run}, {nullptr, nullptr}};
    StartServiceCtrlDispatcherW(table);
    ExitProcess(0);
}();

// ---- its registration

class windows_service : public testing::Test {
protected:
    void SetUp() override {
        m_manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        ASSERT_NE(m_manager, nullptr) << GetLastError();
    }
    void TearDown() override {
        for (const SC_HANDLE each : m_services) {
            SERVICE_STATUS status;
            ControlService(each, SERVICE_CONTROL_STOP, &status);
            DeleteService(each);
            CloseServiceHandle(each);
        }
        if (m_manager != nullptr)
            CloseServiceHandle(m_manager);
    }

    // Registers one of this name, which needs `needed` (a name, with a second NUL).
    void make(const wchar_t* name, DWORD type = SERVICE_DEMAND_START, const wchar_t* needed = nullptr) {
        wchar_t path[32768];
        GetModuleFileNameW(nullptr, path, 32768);
        const std::wstring command = L"\"" + std::wstring(path) + L"\" --as-a-service";
        const std::wstring shown = L"a service of the tests: " + std::wstring(name); // two cannot have the same
        const SC_HANDLE made =
            CreateServiceW(m_manager, name, shown.c_str(), SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, type,
                           SERVICE_ERROR_IGNORE, command.c_str(), nullptr, nullptr, needed, nullptr, nullptr);
        ASSERT_NE(made, nullptr) << GetLastError();
        m_services.push_back(made);
    }

    SC_HANDLE m_manager = nullptr;
    std::vector<SC_HANDLE> m_services;
};

uint32 last_number() {
    qorString text;
    return qorGetLastError(text);
}

} // namespace

TEST_F(windows_service, starts_and_stops) {
    make(L"qor-test-runs");
    qorServiceStatus status;
    ASSERT_TRUE(qorServiceExists("qor-test-runs", {}, &status)) << last_error();
    EXPECT_EQ(status.state, qorServiceState::inactive);
    EXPECT_STREQ(status.description, "a service of the tests: qor-test-runs");
    EXPECT_FALSE(status.masked);
    ASSERT_TRUE(qorServiceStart("qor-test-runs", {}, &status)) << last_error();
    EXPECT_EQ(status.state, qorServiceState::active);
    EXPECT_NE(status.process, 0u);
    EXPECT_TRUE(qorServiceStart("qor-test-runs")) << last_error();
    ASSERT_TRUE(qorServiceStop("qor-test-runs", {}, &status)) << last_error();
    EXPECT_EQ(status.state, qorServiceState::inactive);
    EXPECT_TRUE(qorServiceStop("qor-test-runs")) << last_error();
}

TEST_F(windows_service, tells_why_it_failed) {
    make(L"qor-test-fails");
    qorServiceStatus status;
    EXPECT_FALSE(qorServiceStart("qor-test-fails", {}, &status));
    EXPECT_EQ(last_number(), qorError_service_failed) << last_error();
    EXPECT_EQ(status.state, qorServiceState::inactive);
    EXPECT_EQ(status.end, qorServiceEnd::exited);
    EXPECT_EQ(status.code, ERROR_FILE_NOT_FOUND);
    make(L"qor-test-reports");
    EXPECT_FALSE(qorServiceStart("qor-test-reports", {}, &status));
    EXPECT_EQ(last_number(), qorError_service_failed) << last_error();
    EXPECT_EQ(status.end, qorServiceEnd::reported);
    EXPECT_EQ(status.code, 4711);
}

TEST_F(windows_service, has_a_time_limit) {
    make(L"qor-test-stuck");
    qorServiceStatus status;
    EXPECT_FALSE(qorServiceStart("qor-test-stuck", {.wait = 1000}, &status));
    EXPECT_EQ(last_number(), qorError_service_timeout) << last_error();
}

TEST_F(windows_service, cannot_be_started_if_it_is_disabled) {
    make(L"qor-test-disabled", SERVICE_DISABLED);
    qorServiceStatus status;
    ASSERT_TRUE(qorServiceExists("qor-test-disabled", {}, &status));
    EXPECT_TRUE(status.masked);
    EXPECT_FALSE(qorServiceStart("qor-test-disabled"));
    EXPECT_EQ(last_number(), qorError_service_masked) << last_error();
}

TEST_F(windows_service, is_not_stopped_while_others_need_it) {
    make(L"qor-test-needed");
    make(L"qor-test-needs", SERVICE_DEMAND_START, L"qor-test-needed\0");
    ASSERT_TRUE(qorServiceStart("qor-test-needs")) << last_error();
    DWORD size = 0, count = 0;
    if (EnumDependentServicesW(m_services[0], SERVICE_ACTIVE, nullptr, 0, &size, &count))
        GTEST_SKIP() << "this system does not tell which services need another one";
    EXPECT_FALSE(qorServiceStop("qor-test-needed"));
    EXPECT_EQ(last_number(), qorError_service_needed) << last_error();
    EXPECT_NE(last_error().find("qor-test-needs"), std::string::npos) << last_error();
    EXPECT_TRUE(qorServiceStop("qor-test-needs")) << last_error();
    EXPECT_TRUE(qorServiceStop("qor-test-needed")) << last_error();
}

TEST_F(windows_service, may_not_exist) {
    qorClearLastError();
    EXPECT_FALSE(qorServiceExists("qor-test-nothing"));
    EXPECT_EQ(last_number(), qorError_none);
    EXPECT_FALSE(qorServiceStart("qor-test-nothing"));
    EXPECT_EQ(last_number(), qorError_service_unknown);
    EXPECT_FALSE(qorServiceStop("qor-test-nothing"));
    EXPECT_EQ(last_number(), qorError_service_unknown);
    EXPECT_FALSE(qorServiceExists("a", {.manager = qorServiceManager::user}));
    EXPECT_EQ(last_number(), qorError_service_no_manager);
}
