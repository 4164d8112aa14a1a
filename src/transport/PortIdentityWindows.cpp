#include "PortIdentity.h"

#include "Platform.h"

#include <windows.h>
// After windows.h: the property keys are defined here, not only declared.
#include <initguid.h>

#include <cfgmgr32.h>
#include <devguid.h>
#include <devpkey.h>
#include <setupapi.h>

#include <algorithm>
#include <cctype>
#include <vector>

namespace {

// Text properties are short; anything longer than this is not read.
constexpr ULONG kPropertyLimit = 512;

std::string instanceId(DEVINST node) {
    std::vector<wchar_t> id(MAX_DEVICE_ID_LEN + 1, L'\0');
    if (CM_Get_Device_IDW(node, id.data(), static_cast<ULONG>(id.size() - 1), 0) != CR_SUCCESS) {
        return {};
    }
    return Platform::narrow(id.data());
}

std::string textProperty(DEVINST node, const DEVPROPKEY& key) {
    std::vector<BYTE> buffer(kPropertyLimit + sizeof(wchar_t), 0);
    DEVPROPTYPE type = 0;
    ULONG size = kPropertyLimit;
    if (CM_Get_DevNode_PropertyW(node, &key, &type, buffer.data(), &size, 0) != CR_SUCCESS ||
        type != DEVPROP_TYPE_STRING) {
        return {};
    }
    return Platform::narrow(reinterpret_cast<const wchar_t*>(buffer.data()));
}

// The four hexadecimal digits after `tag` ("VID_", "PID_") in an instance id.
std::string idAfter(const std::string& instance, const char* tag) {
    const auto at = instance.find(tag);
    return at == std::string::npos ? std::string() : instance.substr(at + 4, 4);
}

// The USB device node at or above `node`: its instance id reads
// USB\VID_<vendor>&PID_<product>\<serial>; an interface of a composite device (&MI_)
// and a driver's own node (FTDIBUS\...) lead up to it.
bool usbDevice(DEVINST& node, std::string& instance) {
    for (int depth = 0; depth < 8; ++depth) {
        instance = instanceId(node);
        if (instance.rfind("USB\\VID_", 0) == 0 && instance.find("&MI_") == std::string::npos) {
            return true;
        }
        DEVINST parent = 0;
        if (CM_Get_Parent(&parent, node, 0) != CR_SUCCESS) {
            return false;
        }
        node = parent;
    }
    return false;
}

PortIdentity identityOf(DEVINST port) {
    PortIdentity identity;
    DEVINST device = port;
    std::string instance;
    if (!usbDevice(device, instance)) {
        return identity;
    }
    identity.vendorId = idAfter(instance, "VID_");
    identity.productId = idAfter(instance, "PID_");
    // The last part of the id is the adapter's serial number unless the
    // system made one up, which holds an ampersand.
    const std::string last = instance.substr(instance.rfind('\\') + 1);
    if (last.find('&') == std::string::npos) {
        identity.serialNumber = last;
    }
    identity.product = textProperty(port, DEVPKEY_Device_BusReportedDeviceDesc);
    return identity;
}

std::string portNameOf(HDEVINFO set, SP_DEVINFO_DATA& info) {
    HKEY key = SetupDiOpenDevRegKey(set, &info, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_READ);
    if (key == INVALID_HANDLE_VALUE) {
        return {};
    }
    std::vector<wchar_t> name(64, L'\0');
    DWORD size = static_cast<DWORD>((name.size() - 1) * sizeof(wchar_t));
    DWORD type = 0;
    const LSTATUS status =
        RegQueryValueExW(key, L"PortName", nullptr, &type, reinterpret_cast<BYTE*>(name.data()), &size);
    RegCloseKey(key);
    return status == ERROR_SUCCESS && type == REG_SZ ? Platform::narrow(name.data()) : std::string();
}

// COM names compare without regard to case, with or without the device prefix.
bool sameName(const std::string& listed, const std::string& port) {
    const std::string asked = port.rfind("\\\\.\\", 0) == 0 ? port.substr(4) : port;
    return !listed.empty() &&
           std::equal(listed.begin(), listed.end(), asked.begin(), asked.end(), [](char a, char b) {
               return std::toupper(static_cast<unsigned char>(a)) ==
                      std::toupper(static_cast<unsigned char>(b));
           });
}

} // namespace

std::optional<PortIdentity> PortIdentity::of(const std::string& port) {
    HDEVINFO set = SetupDiGetClassDevsW(&GUID_DEVCLASS_PORTS, nullptr, nullptr, DIGCF_PRESENT);
    if (set == INVALID_HANDLE_VALUE) {
        return std::nullopt;
    }
    std::optional<PortIdentity> found;
    SP_DEVINFO_DATA info{};
    info.cbSize = sizeof(info);
    for (DWORD index = 0; !found && SetupDiEnumDeviceInfo(set, index, &info); ++index) {
        if (sameName(portNameOf(set, info), port)) {
            PortIdentity identity = identityOf(info.DevInst);
            if (!identity.vendorId.empty()) {
                found = identity;
            }
        }
    }
    SetupDiDestroyDeviceInfoList(set);
    return found;
}
