#pragma once
// The in-house exception. Constructors of resource-owning objects throw it by pointer
// (`throw new CDaxException(...)`); whoever catches it logs it and deletes it.
#include <cstdint>
#include <memory>
#include <string>

namespace daxlib
{

class CDaxException
{
public:
    // Captures the thread's last-error value at construction.
    CDaxException(const wchar_t* module, uint32_t line, const wchar_t* description = L"");

    uint32_t ErrorCode() const noexcept { return m_dwError; }
    uint32_t Line() const noexcept { return m_dwLine; }
    const std::wstring& Module() const noexcept { return m_strModule; }
    const std::wstring& Description() const noexcept { return m_strDescription; }

private:
    uint32_t m_dwError;
    uint32_t m_dwLine;
    std::wstring m_strModule;
    std::wstring m_strDescription;
};

[[noreturn]] void ThrowDaxException(const wchar_t* module, uint32_t line, const wchar_t* description = L"");

// Takes ownership of a caught exception pointer so it is deleted on every path.
using DaxExceptionPtr = std::unique_ptr<CDaxException>;

} // namespace daxlib
