#include "common/DaxException.h"

#include <windows.h>

namespace daxlib
{

CDaxException::CDaxException(const wchar_t* module, uint32_t line, const wchar_t* description)
    : m_dwError(::GetLastError()), m_dwLine(line), m_strModule(module ? module : L""),
      m_strDescription(description ? description : L"")
{
}

void ThrowDaxException(const wchar_t* module, uint32_t line, const wchar_t* description)
{
    throw new CDaxException(module, line, description);
}

} // namespace daxlib
