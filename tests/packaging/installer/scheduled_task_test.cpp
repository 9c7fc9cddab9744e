#include "packaging/installer/scheduled_task.h"

#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <oleauto.h>
#include <taskschd.h>

#include <string>

namespace {

// A Task Scheduler that knows one task. What the code under test does not ask for is not implemented.
template <class I> class automation_object : public I {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOTIMPL; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override {
        ++released;
        return 0;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                     UINT*) override {
        return E_NOTIMPL;
    }

    int given = 0;
    int released = 0;

protected:
    virtual ~automation_object() { EXPECT_EQ(given, released); }
};

template <class T> struct answer {
    HRESULT result = S_OK;
    T value{};
};

class fake_task final : public automation_object<IRegisteredTask> {
public:
    answer<VARIANT_BOOL> enabled{S_OK, VARIANT_TRUE};
    answer<LONG> last_result;
    answer<DATE> last_run;
    answer<DATE> next_run;

    HRESULT STDMETHODCALLTYPE get_Enabled(VARIANT_BOOL* value) override { return give(enabled, value); }
    HRESULT STDMETHODCALLTYPE get_LastTaskResult(LONG* value) override { return give(last_result, value); }
    HRESULT STDMETHODCALLTYPE get_LastRunTime(DATE* value) override { return give(last_run, value); }
    HRESULT STDMETHODCALLTYPE get_NextRunTime(DATE* value) override { return give(next_run, value); }
    HRESULT STDMETHODCALLTYPE get_Xml(BSTR* value) override {
        *value = ::SysAllocString(L"<Task/>");
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE get_Name(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Path(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_State(TASK_STATE*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_Enabled(VARIANT_BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Run(VARIANT, IRunningTask**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RunEx(VARIANT, LONG, LONG, BSTR, IRunningTask**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetInstances(LONG, IRunningTaskCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_NumberOfMissedRuns(LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Definition(ITaskDefinition**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetSecurityDescriptor(LONG, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSecurityDescriptor(BSTR, LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Stop(LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetRunTimes(const LPSYSTEMTIME, const LPSYSTEMTIME, DWORD*,
                                          LPSYSTEMTIME*) override {
        return E_NOTIMPL;
    }

private:
    template <class T> static HRESULT give(const answer<T>& prepared, T* value) {
        if (SUCCEEDED(prepared.result)) {
            *value = prepared.value;
        }
        return prepared.result;
    }
};

class fake_folder final : public automation_object<ITaskFolder> {
public:
    fake_task task;
    HRESULT found = S_OK;

    HRESULT STDMETHODCALLTYPE GetTask(BSTR path, IRegisteredTask** result) override {
        EXPECT_STREQ(path, L"Tavrin\\Halvoro update");
        if (SUCCEEDED(found)) {
            ++task.given;
            *result = &task;
        }
        return found;
    }

    HRESULT STDMETHODCALLTYPE get_Name(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Path(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetFolder(BSTR, ITaskFolder**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetFolders(LONG, ITaskFolderCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateFolder(BSTR, VARIANT, ITaskFolder**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DeleteFolder(BSTR, LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTasks(LONG, IRegisteredTaskCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DeleteTask(BSTR, LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RegisterTask(BSTR, BSTR, LONG, VARIANT, VARIANT, TASK_LOGON_TYPE, VARIANT,
                                           IRegisteredTask**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE RegisterTaskDefinition(BSTR, ITaskDefinition*, LONG, VARIANT, VARIANT,
                                                     TASK_LOGON_TYPE, VARIANT, IRegisteredTask**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetSecurityDescriptor(LONG, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSecurityDescriptor(BSTR, LONG) override { return E_NOTIMPL; }
};

class fake_scheduler final : public automation_object<ITaskService> {
public:
    fake_folder folder;

    HRESULT STDMETHODCALLTYPE Connect(VARIANT, VARIANT, VARIANT, VARIANT) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE GetFolder(BSTR path, ITaskFolder** result) override {
        EXPECT_STREQ(path, L"\\");
        ++folder.given;
        *result = &folder;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetRunningTasks(LONG, IRunningTaskCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE NewTask(DWORD, ITaskDefinition**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Connected(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_TargetServer(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_ConnectedUser(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_ConnectedDomain(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_HighestVersion(DWORD*) override { return E_NOTIMPL; }

private:
    support::script<decltype(::CoCreateInstance)> m_create{
        support::CoCreateInstance, [this](REFCLSID, IUnknown*, DWORD, REFIID, void** made) {
            ++given;
            *made = static_cast<ITaskService*>(this);
            return S_OK;
        }};
};

TEST(scheduled_task, has_the_past_and_the_future_that_the_scheduler_knows) {
    fake_scheduler scheduler;
    scheduler.folder.task.last_result.value = static_cast<LONG>(0x80000001);
    scheduler.folder.task.last_run.value = 46347.5;
    scheduler.folder.task.next_run.value = 46348.5;
    setup::task_state state;
    EXPECT_EQ(setup::read_task_state(state), S_OK);
    EXPECT_TRUE(state.enabled);
    EXPECT_EQ(state.last_result, 0x80000001U);
    EXPECT_EQ(state.last_run, 46347.5);
    EXPECT_EQ(state.next_run, 46348.5);
}

TEST(scheduled_task, that_has_not_run_yet_has_the_result_and_the_times_for_that) {
    fake_scheduler scheduler;
    constexpr HRESULT has_not_run = 0x41303;
    constexpr HRESULT no_valid_triggers = 0x41305;
    scheduler.folder.task.last_result = {has_not_run, 0};
    scheduler.folder.task.last_run = {has_not_run, 1.0};
    scheduler.folder.task.next_run = {no_valid_triggers, 1.0};
    setup::task_state state;
    EXPECT_EQ(setup::read_task_state(state), S_OK);
    EXPECT_EQ(state.last_result, 0x41303U);
    EXPECT_EQ(state.last_run, 0.0);
    EXPECT_EQ(state.next_run, 0.0);
}

TEST(scheduled_task, has_no_past_when_the_scheduler_does_not_tell) {
    fake_scheduler scheduler;
    scheduler.folder.task.enabled = {E_NOTIMPL, VARIANT_TRUE};
    scheduler.folder.task.last_result.result = E_NOTIMPL;
    scheduler.folder.task.last_run.result = E_ACCESSDENIED;
    scheduler.folder.task.next_run.result = E_NOTIMPL;
    setup::task_state state;
    EXPECT_EQ(setup::read_task_state(state), S_OK);
    EXPECT_FALSE(state.enabled);
    EXPECT_EQ(state.last_result, std::nullopt);
    EXPECT_EQ(state.last_run, std::nullopt);
    EXPECT_EQ(state.next_run, std::nullopt);
}

TEST(scheduled_task, that_is_disabled_or_missing_says_so) {
    fake_scheduler scheduler;
    setup::task_state state;
    state.enabled = true;
    scheduler.folder.task.enabled.value = VARIANT_FALSE;
    EXPECT_EQ(setup::read_task_state(state), S_OK);
    EXPECT_FALSE(state.enabled);
    scheduler.folder.found = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(setup::read_task_state(state), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    std::wstring xml;
    EXPECT_EQ(setup::read_task(xml), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    scheduler.folder.found = S_OK;
    EXPECT_EQ(setup::read_task(xml), S_OK);
    EXPECT_EQ(xml, L"<Task/>");
}

TEST(scheduled_task, is_made_of_the_model_with_time_program_and_mark) {
    const std::wstring model =
        L"<RegistrationInfo>\n</RegistrationInfo><StartBoundary>2026-01-01T12:30:00</StartBoundary>"
        L"<Command>%ProgramFiles%\\Tavrin\\Halvoro\\lumaris.exe</Command>";
    EXPECT_EQ(setup::task_xml(model, L"07:05", L"C:\\R&D <1>\\lumaris.exe", L"Lumaris {1}"),
              L"<RegistrationInfo>\n    <Source>Lumaris {1}</Source>\n</RegistrationInfo>"
              L"<StartBoundary>2026-01-01T07:05:00</StartBoundary>"
              L"<Command>C:\\R&amp;D &lt;1&gt;\\lumaris.exe</Command>");
    EXPECT_EQ(setup::task_xml(L"<RegistrationInfo>", L"07:05", L"C:\\lumaris.exe", L"mark"), L"");
}

TEST(scheduled_task, begins_at_a_time_of_day) {
    for (const wchar_t* time : {L"00:00", L"07:05", L"23:59"}) {
        EXPECT_TRUE(setup::is_time_of_day(time));
    }
    for (const wchar_t* time :
         {L"", L"24:00", L"7:05", L"07:60", L"07-05", L"07:05:00", L"0a:00", L"07:5 "}) {
        EXPECT_FALSE(setup::is_time_of_day(time));
    }
}

} // namespace
