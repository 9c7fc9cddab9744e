// A network list manager that answers as the test sets it: an in-process COM server, registered in a test
// prefix under the list manager's own class id, so that the program under test asks it without knowing. The
// answers stand in the registry under HKLM\Software\LumarisTestBed, each a DWORD:
//
//   CreateResult     result of creating the object (default S_OK)
//   ConnectedResult  result of get_IsConnectedToInternet (default S_OK), Connected its value (default 1)
//   Crash            1: that question crashes the program that asks it
//   QueryResult      result of asking for INetworkCostManager (default S_OK)
//   CostResult       result of GetCost (default S_OK), Cost its value (default 1, unrestricted)
//
// Objects are static and never freed; the reference counts only keep callers content.

#include <windows.h>

#include <netlistmgr.h>

namespace {

DWORD answer(const wchar_t* name, DWORD otherwise) {
    DWORD value = 0;
    DWORD size = sizeof value;
    return RegGetValueW(HKEY_LOCAL_MACHINE, L"Software\\LumarisTestBed", name,
                        RRF_RT_REG_DWORD | RRF_SUBKEY_WOW6464KEY, nullptr, &value, &size) == ERROR_SUCCESS
               ? value
               : otherwise;
}

HRESULT result(const wchar_t* name) {
    return static_cast<HRESULT>(answer(name, S_OK));
}

class cost_manager final : public INetworkCostManager {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
        *object = IsEqualGUID(id, __uuidof(IUnknown)) || IsEqualGUID(id, __uuidof(INetworkCostManager))
                      ? this
                      : nullptr;
        return *object != nullptr ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetCost(DWORD* cost, NLM_SOCKADDR*) override {
        *cost = answer(L"Cost", NLM_CONNECTION_COST_UNRESTRICTED);
        return result(L"CostResult");
    }
    HRESULT STDMETHODCALLTYPE GetDataPlanStatus(NLM_DATAPLAN_STATUS*, NLM_SOCKADDR*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetDestinationAddresses(UINT32, NLM_SOCKADDR*, VARIANT_BOOL) override {
        return E_NOTIMPL;
    }
};

cost_manager the_cost_manager;

class list_manager final : public INetworkListManager {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
        *object = nullptr;
        if (IsEqualGUID(id, __uuidof(INetworkCostManager))) {
            const HRESULT asked = result(L"QueryResult");
            if (SUCCEEDED(asked)) {
                *object = static_cast<INetworkCostManager*>(&the_cost_manager);
            }
            return asked;
        }
        if (IsEqualGUID(id, __uuidof(IUnknown)) || IsEqualGUID(id, __uuidof(IDispatch)) ||
            IsEqualGUID(id, __uuidof(INetworkListManager))) {
            *object = this;
            return S_OK;
        }
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                     UINT*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetNetworks(NLM_ENUM_NETWORK, IEnumNetworks**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetNetwork(GUID, INetwork**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetNetworkConnections(IEnumNetworkConnections**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetNetworkConnection(GUID, INetworkConnection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE IsConnectedToInternet(VARIANT_BOOL* connected) override {
        if (answer(L"Crash", 0) != 0) {
            *static_cast<volatile int*>(nullptr) = 1;
        }
        *connected = answer(L"Connected", 1) != 0 ? VARIANT_TRUE : VARIANT_FALSE;
        return result(L"ConnectedResult");
    }
    HRESULT STDMETHODCALLTYPE IsConnected(VARIANT_BOOL* connected) override {
        return IsConnectedToInternet(connected);
    }
    HRESULT STDMETHODCALLTYPE GetConnectivity(NLM_CONNECTIVITY*) override { return E_NOTIMPL; }
};

list_manager the_list_manager;

class list_manager_factory final : public IClassFactory {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
        *object =
            IsEqualGUID(id, __uuidof(IUnknown)) || IsEqualGUID(id, __uuidof(IClassFactory)) ? this : nullptr;
        return *object != nullptr ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID id, void** object) override {
        *object = nullptr;
        const HRESULT created = result(L"CreateResult");
        return SUCCEEDED(created) ? the_list_manager.QueryInterface(id, object) : created;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};

list_manager_factory the_factory;

} // namespace

extern "C" HRESULT STDMETHODCALLTYPE DllGetClassObject(REFCLSID, REFIID id, void** object) {
    return the_factory.QueryInterface(id, object);
}

extern "C" HRESULT STDMETHODCALLTYPE DllCanUnloadNow() {
    return S_FALSE;
}
