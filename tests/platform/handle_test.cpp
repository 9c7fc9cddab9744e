#include "platform/handle.h"

#include "tests/stream/slots.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <vector>

namespace {

const auto first = reinterpret_cast<void*>(0x7654321C);
const auto second = reinterpret_cast<void*>(0x76543218);

// Watches the releasing of values that no system ever gave out; a release changes the last error, as failing
// ones do.
template <class F> class released;

template <class R, class T> class released<R(T)> {
public:
    explicit released(support::substitute<R(T)>& function)
        : m_function(function), m_script(function, [this](T value) -> R {
              if (value != reinterpret_cast<T>(first) && value != reinterpret_cast<T>(second)) {
                  return m_function.real(value);
              }
              values.push_back(value);
              ::SetLastError(6);
              return R{};
          }) {}

    std::vector<void*> values;

private:
    support::substitute<R(T)>& m_function;
    support::script<R(T)> m_script;
};

template <class R, class T> released(support::substitute<R(T)>&) -> released<R(T)>;

using values = std::vector<void*>;

// What holds for every owner: `Wrapper` holds a T, releases with `function`, and is empty with `invalid`.
template <class Wrapper, class T, class F> void expect_owner(F& function, void* invalid) {
    static_assert(!std::is_copy_constructible_v<Wrapper>);
    static_assert(!std::is_copy_assignable_v<Wrapper>);
    static_assert(!std::is_convertible_v<T, Wrapper>);
    static_assert(std::has_virtual_destructor_v<Wrapper>);
    static_assert(sizeof(Wrapper) == 2 * sizeof(void*));
    const auto value = reinterpret_cast<T>(first);
    const auto other = reinterpret_cast<T>(second);
    const released watch(function);
    {
        const Wrapper empty;
        EXPECT_FALSE(empty);
        EXPECT_EQ(reinterpret_cast<T>(invalid), empty.get());
        const Wrapper also_empty(reinterpret_cast<T>(invalid));
        EXPECT_FALSE(also_empty);
    }
    EXPECT_EQ((values{}), watch.values) << "an empty owner released something";
    ::SetLastError(1234);
    {
        const Wrapper owner(value);
        EXPECT_TRUE(owner);
        EXPECT_EQ(value, owner.get());
    }
    EXPECT_EQ(1234U, ::GetLastError());
    EXPECT_EQ((values{first}), watch.values);
    {
        Wrapper owner(value);
        owner.free();
        EXPECT_FALSE(owner);
        EXPECT_EQ((values{first, first}), watch.values);
        owner.free();
        EXPECT_EQ((values{first, first}), watch.values) << "released twice";
        EXPECT_EQ(1234U, ::GetLastError());
        owner.reset(value);
        EXPECT_EQ((values{first, first}), watch.values);
        owner.reset(other);
        EXPECT_EQ((values{first, first, first}), watch.values);
        EXPECT_EQ(other, owner.get());
    }
    EXPECT_EQ((values{first, first, first, second}), watch.values);
    EXPECT_EQ(1234U, ::GetLastError());
}

// Gives the slots of the operations that the wrappers keep to themselves.
class opened_handle : pwrap::handle<HANDLE, 0> {
public:
    static std::size_t release_slot() { return test::slot_of(&opened_handle::free_internal); }

protected:
    ~opened_handle() = default;
};

class opened_dplhandle : pwrap::dplhandle<IUnknown*, 0> {
public:
    static std::size_t release_slot() { return test::slot_of(&opened_dplhandle::free_internal); }
    static std::size_t duplicate_slot() { return test::slot_of(&opened_dplhandle::duplicate_internal); }

protected:
    ~opened_dplhandle() = default;
};

// A COM object that counts its references and gives itself for one interface.
class counted : public IUnknown {
public:
    virtual ~counted() = default;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        asked = iid;
        *object = this; // also on failure, to show that nobody takes it then
        if (result >= 0) {
            ++references;
        }
        return result;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
    ULONG STDMETHODCALLTYPE Release() override {
        ::SetLastError(6);
        return --references;
    }

    ULONG references = 1;
    HRESULT result = S_OK;
    IID asked{};
};

using owner_of_counted = pwrap::com_obj<IUnknown>;

} // namespace

TEST(handle, win_handle_closes_kernel_objects) {
    expect_owner<pwrap::win_handle<0>, HANDLE>(support::CloseHandle, nullptr);
}

TEST(handle, library_frees_modules) {
    expect_owner<pwrap::library, HMODULE>(support::FreeLibrary, nullptr);
}

TEST(handle, reg_key_closes_keys) {
    expect_owner<pwrap::reg_key, HKEY>(support::RegCloseKey, nullptr);
}

TEST(handle, find_file_ends_searches_and_is_empty_with_all_bits_set) {
    expect_owner<pwrap::find_file, HANDLE>(support::FindClose, reinterpret_cast<void*>(-1));
}

TEST(handle, event_log_deregisters_event_sources) {
    expect_owner<pwrap::event_log, HANDLE>(support::DeregisterEventSource, nullptr);
}

TEST(handle, http_closes_winhttp_handles) {
    expect_owner<pwrap::http, HINTERNET>(support::WinHttpCloseHandle, nullptr);
}

TEST(handle, releases_when_an_exception_leaves) {
    const released watch(support::CloseHandle);
    try {
        const pwrap::win_handle<0> owner(first);
        throw 1;
    } catch (int) {
    }
    EXPECT_EQ((values{first}), watch.values);
}

TEST(handle, is_empty_before_the_system_is_reported) {
    // Closing may wake the thread that destroys the owner.
    pwrap::win_handle<0> owner(first);
    bool empty = false;
    const support::script close(support::CloseHandle, [&](HANDLE) -> BOOL {
        empty = owner.get() == nullptr;
        return TRUE;
    });
    owner.free();
    EXPECT_TRUE(empty);
}

TEST(handle, has_the_release_in_the_first_slot) {
    EXPECT_EQ(0U, opened_handle::release_slot());
    EXPECT_EQ(0U, opened_dplhandle::release_slot());
}

TEST(handle, has_duplication_between_release_and_destructor) {
    EXPECT_EQ(1U, opened_dplhandle::duplicate_slot());
}

TEST(handle, has_no_virtual_destructor_in_the_bases_which_would_take_the_second_slot) {
    static_assert(!std::has_virtual_destructor_v<pwrap::handle<HANDLE, 0>>);
    static_assert(!std::has_virtual_destructor_v<pwrap::dplhandle<IUnknown*, 0>>);
}

TEST(com_obj, releases_its_reference_once) {
    counted object;
    ::SetLastError(1234);
    {
        const owner_of_counted owner(&object);
        EXPECT_TRUE(owner);
        EXPECT_EQ(&object, owner.get());
        EXPECT_EQ(1U, object.references) << "taking over adds no reference";
    }
    EXPECT_EQ(0U, object.references);
    EXPECT_EQ(1234U, ::GetLastError());
}

TEST(com_obj, adds_a_reference_for_each_copy) {
    static_assert(std::is_copy_constructible_v<owner_of_counted>);
    counted object;
    {
        const owner_of_counted owner(&object);
        const owner_of_counted copy = owner; // NOLINT(performance-unnecessary-copy-initialization)
        EXPECT_EQ(&object, copy.get());
        EXPECT_EQ(2U, object.references);
    }
    EXPECT_EQ(0U, object.references);
}

TEST(com_obj, releases_what_it_held_when_another_is_assigned) {
    counted object;
    counted other;
    {
        owner_of_counted owner(&object);
        const owner_of_counted source(&other);
        owner = source;
        EXPECT_EQ(0U, object.references);
        EXPECT_EQ(2U, other.references);
        EXPECT_EQ(&other, owner.get());
    }
    EXPECT_EQ(0U, other.references);
}

TEST(com_obj, survives_being_assigned_to_itself) {
    counted object;
    {
        owner_of_counted owner(&object);
        const owner_of_counted& same = owner;
        owner = same;
        EXPECT_EQ(1U, object.references);
        EXPECT_EQ(&object, owner.get());
    }
    EXPECT_EQ(0U, object.references);
}

TEST(com_obj, copies_emptiness) {
    const owner_of_counted empty;
    const owner_of_counted copy = empty; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_FALSE(copy);
    counted object;
    owner_of_counted owner(&object);
    owner = empty;
    EXPECT_FALSE(owner);
    EXPECT_EQ(0U, object.references);
}

TEST(com_obj, creates_its_object_in_any_context) {
    counted object;
    const support::script create(
        support::CoCreateInstance,
        [&](REFCLSID id, IUnknown* outer, DWORD context, REFIID iid, void** made) -> HRESULT {
            EXPECT_TRUE(IsEqualGUID(GUID_NULL, id));
            EXPECT_EQ(nullptr, outer);
            EXPECT_EQ(0x17U, context);
            EXPECT_TRUE(IsEqualGUID(IID_IUnknown, iid));
            *made = &object;
            return S_OK;
        });
    {
        owner_of_counted owner;
        EXPECT_EQ(S_OK, owner.create(GUID_NULL, IID_IUnknown));
        EXPECT_EQ(&object, owner.get());
    }
    EXPECT_EQ(0U, object.references);
}

TEST(com_obj, is_empty_where_the_object_cannot_be_created) {
    counted former;
    counted object;
    const support::script create(support::CoCreateInstance,
                                 [&](REFCLSID, IUnknown*, DWORD, REFIID, void** made) -> HRESULT {
                                     *made = &object;
                                     return E_FAIL;
                                 });
    owner_of_counted owner(&former);
    EXPECT_EQ(E_FAIL, owner.create(GUID_NULL, IID_IUnknown));
    EXPECT_FALSE(owner);
    EXPECT_EQ(0U, former.references);
    EXPECT_EQ(1U, object.references);
}

TEST(com_obj, queries_another_interface_and_owns_it) {
    counted object;
    {
        const owner_of_counted source(&object);
        owner_of_counted owner;
        EXPECT_EQ(S_OK, owner.query(source, IID_IDispatch));
        EXPECT_TRUE(IsEqualGUID(IID_IDispatch, object.asked));
        EXPECT_EQ(2U, object.references);
    }
    EXPECT_EQ(0U, object.references);
}

TEST(com_obj, is_empty_where_the_interface_is_not_to_be_had) {
    counted object;
    object.result = E_NOINTERFACE;
    const owner_of_counted source(&object);
    owner_of_counted owner;
    EXPECT_EQ(E_NOINTERFACE, owner.query(source, IID_IDispatch));
    EXPECT_FALSE(owner);
    EXPECT_EQ(1U, object.references);
}
