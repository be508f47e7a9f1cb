// Connection to a WMI namespace, shared by the select calls and the firmware
// method channel: locator, ConnectServer and the proxy blanket.
#pragma once

#include <windows.h>
#include <wbemidl.h>

#include <string>

#include "common/win_resource.h"

namespace torvex {

bool ConnectWmi(const std::wstring& nameSpace, ComPtr<IWbemLocator>& locator, ComPtr<IWbemServices>& services);

}  // namespace torvex
