#include "platform/Volume.h"

#include "platform/win32/Win32Util.h"

namespace platform {

struct VolumeSearch::State {
  HANDLE handle = INVALID_HANDLE_VALUE;
};

VolumeSearch::VolumeSearch() : m_state(std::make_unique<State>()) {}

VolumeSearch::~VolumeSearch() {
  if (m_state->handle != INVALID_HANDLE_VALUE) FindVolumeClose(m_state->handle);
}

uint32_t VolumeSearch::First(WString& name) {
  if (m_state->handle != INVALID_HANDLE_VALUE) FindVolumeClose(m_state->handle);
  wchar_t buffer[MAX_PATH + 1] = {};
  m_state->handle = FindFirstVolumeW(buffer, MAX_PATH + 1);
  if (m_state->handle == INVALID_HANDLE_VALUE) return GetLastError();
  name = U16(buffer);
  return 0;
}

uint32_t VolumeSearch::Next(WString& name) {
  if (m_state->handle == INVALID_HANDLE_VALUE) return ERROR_NO_MORE_FILES;
  wchar_t buffer[MAX_PATH + 1] = {};
  if (!FindNextVolumeW(m_state->handle, buffer, MAX_PATH + 1)) return GetLastError();
  name = U16(buffer);
  return 0;
}

uint32_t QueryVolumeDevice(const WString& deviceName, WString& device) {
  wchar_t buffer[1024] = {};
  if (QueryDosDeviceW(W32(deviceName), buffer, 1024) == 0) return GetLastError();
  device = U16(buffer);
  return 0;
}

uint32_t VolumeMountPaths(const WString& volumeName, uint32_t capacity, std::vector<WString>& paths, uint32_t& needed) {
  paths.clear();
  needed = 0;
  std::vector<wchar_t> buffer(capacity ? capacity : 1, L'\0');
  DWORD length = 0;
  if (!GetVolumePathNamesForVolumeNameW(W32(volumeName), buffer.data(), capacity, &length)) {
    const DWORD error = GetLastError();
    if (error == ERROR_MORE_DATA) needed = length;
    return error;
  }
  needed = length;
  for (const wchar_t* p = buffer.data(); *p; p += wcslen(p) + 1) paths.push_back(U16(p));
  return 0;
}

uint32_t VolumeLabelAt(const WString& mountPath, WString& label) {
  label.clear();
  wchar_t buffer[MAX_PATH + 1] = {};
  if (!GetVolumeInformationW(W32(mountPath), buffer, MAX_PATH + 1, nullptr, nullptr, nullptr, nullptr, 0))
    return GetLastError();
  label = U16(buffer);
  return 0;
}

}  // namespace platform
