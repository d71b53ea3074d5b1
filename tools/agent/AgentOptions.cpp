#include "tools/agent/AgentOptions.h"

#include <cwctype>

namespace agent
{

namespace
{
bool IsSchemeChar(wchar_t c, bool first)
{
    const bool letter = (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
    if (first)
        return letter;
    return letter || (c >= L'0' && c <= L'9') || c == L'+' || c == L'-' || c == L'.';
}
} // namespace

bool ParseMilliseconds(const std::wstring& text, uint32_t& value)
{
    if (text.empty() || text.size() > 7)
        return false;
    uint32_t result = 0;
    for (wchar_t c : text)
    {
        if (c < L'0' || c > L'9')
            return false;
        result = result * 10 + static_cast<uint32_t>(c - L'0');
    }
    value = result;
    return true;
}

ParseResult ParseCommandLine(const std::vector<std::wstring>& args)
{
    ParseResult result;
    auto refuse = [&](int code, std::wstring message)
    {
        result.exitCode = code;
        result.error = std::move(message);
        return result;
    };
    for (const std::wstring& arg : args)
    {
        if (arg == L"--help" || arg == L"-h" || arg == L"/?")
        {
            result.options.action = Action::Help;
            return result;
        }
    }
    bool haveUrl = false;
    bool haveAction = false;
    for (size_t i = 0; i < args.size(); ++i)
    {
        const std::wstring& arg = args[i];
        if (arg == L"--no-fallback")
            result.options.fallback = false;
        else if (arg == L"--register" || arg == L"--unregister")
        {
            if (haveAction)
                return refuse(kExitUsage, L"--register and --unregister cannot be combined");
            haveAction = true;
            result.options.action = arg == L"--register" ? Action::Register : Action::Unregister;
        }
        else if (arg == L"--timeout")
        {
            if (i + 1 >= args.size() || !ParseMilliseconds(args[i + 1], result.options.timeoutMs))
                return refuse(kExitUsage, L"--timeout needs a number of milliseconds");
            ++i;
        }
        else if (arg.size() > 1 && arg[0] == L'-' && arg[1] == L'-')
            return refuse(kExitUsage, L"unknown option " + arg + L" (see --help)");
        else
        {
            if (haveUrl)
                return refuse(kExitUsage, L"only one URL can be given");
            haveUrl = true;
            // A page file on this host, as the .htm and .html associations hand it over.
            result.options.url = IsPageFilePath(arg) ? FileUrlFromPath(arg) : arg;
        }
    }
    if (result.options.action != Action::OpenUrl)
    {
        if (haveUrl)
            return refuse(kExitUsage, L"--register and --unregister take no URL");
        return result;
    }
    if (!haveUrl)
        return refuse(kExitUsage, L"no URL given (see --help)");
    if (std::wstring reason = CheckUrl(result.options.url); !reason.empty())
        return refuse(kExitBadUrl, reason);
    return result;
}

bool IsPageFilePath(const std::wstring& text)
{
    const bool drive = text.size() > 3 && std::iswalpha(text[0]) && text[1] == L':' && text[2] == L'\\';
    const bool share =
        text.size() > 2 && text[0] == L'\\' && text[1] == L'\\' && text[2] != L'?' && text[2] != L'.';
    if (!drive && !share)
        return false;
    const size_t dot = text.find_last_of(L".\\");
    if (dot == std::wstring::npos || text[dot] != L'.')
        return false;
    std::wstring extension = text.substr(dot + 1);
    for (wchar_t& c : extension)
        c = static_cast<wchar_t>(std::towlower(c));
    return extension == L"htm" || extension == L"html";
}

std::wstring FileUrlFromPath(const std::wstring& path)
{
    // C:\a\b.html -> file:///C:/a/b.html; \\server\share\b.html -> file://server/share/b.html.
    std::wstring url = path[0] == L'\\' ? L"file:" : L"file:///";
    for (const wchar_t c : path)
    {
        switch (c)
        {
        case L'\\':
            url += L'/';
            break;
        case L' ':
            url += L"%20";
            break;
        case L'%':
            url += L"%25";
            break;
        case L'#':
            url += L"%23";
            break;
        case L'?':
            url += L"%3F";
            break;
        default:
            url += c;
        }
    }
    return url;
}

std::wstring CheckUrl(const std::wstring& url)
{
    if (url.empty())
        return L"the URL is empty";
    if (url.size() > kMaxUrlLength)
        return L"the URL is longer than " + std::to_wstring(kMaxUrlLength) + L" characters";
    const size_t colon = url.find(L':');
    if (colon == std::wstring::npos || colon < 2)
        return L"not a URL: it has no scheme such as https:";
    for (size_t i = 0; i < colon; ++i)
    {
        if (!IsSchemeChar(url[i], i == 0))
            return L"not a URL: its scheme has a character that is not allowed";
    }
    if (colon + 1 == url.size())
        return L"not a URL: nothing follows the scheme";
    // Spaces inside are taken: links that applications hand to the default browser may hold
    // them unescaped, and the URL travels as one argument either way.
    if (url.back() == L' ')
        return L"not a URL: it contains blanks or control characters";
    for (wchar_t c : url)
    {
        if (c < L' ' || c == 0x7F)
            return L"not a URL: it contains blanks or control characters";
    }
    return {};
}

std::wstring UrlScheme(const std::wstring& url)
{
    const size_t colon = url.find(L':');
    std::wstring scheme = colon == std::wstring::npos ? std::wstring() : url.substr(0, colon);
    for (wchar_t& c : scheme)
        c = static_cast<wchar_t>(std::towlower(c));
    return scheme;
}

std::wstring HelpText()
{
    return L"Usage: velomar-open [--no-fallback] [--timeout MS] URL\n"
           L"       velomar-open --register | --unregister | --help\n"
           L"\n"
           L"Hands URL to the velomard service, which opens it on the client side of this remote\n"
           L"session. When the service is absent or cannot send it, the URL is opened on this host\n"
           L"with a browser that is not velomar-open (the administrator's FallbackBrowser, the default\n"
           L"browser from before --register, another registered browser, the scheme's handler), unless\n"
           L"--no-fallback is given. A URL that the host's URL policy refuses (it is checked here\n"
           L"first, and again by the service) is treated the same way. An .htm or .html file path is\n"
           L"taken as its file: URL. Scripts run velomar-open-cli, which a console waits for.\n"
           L"\n"
           L"  --no-fallback   never open the URL on this host\n"
           L"  --timeout MS    longest wait for the service, in milliseconds (default 5000)\n"
           L"  --register      make velomar-open selectable as this user's browser for http and https,\n"
           L"                  keeping the current default as the fallback browser\n"
           L"  --unregister    undo --register\n"
           L"\n"
           L"Exit codes:\n"
           L"   0  sent to the client side of this session\n"
           L"   1  not sent; opened on this host instead\n"
           L"   2  not sent and not opened (--no-fallback, or the local opening failed)\n"
           L"   3  refused by the host's URL policy; opened on this host instead\n"
           L"   4  refused by the host's URL policy; not opened (--no-fallback, or the local opening "
           L"failed)\n"
           L"  64  usage error: no URL, an unknown option, or too many arguments\n"
           L"  65  not a URL, or longer than 16384 characters\n"
           L"  70  --register or --unregister failed\n"
           L"  77  the agent pipe is served by another process than the velomard service; nothing was\n"
           L"      handed over, and the URL is not opened\n";
}

} // namespace agent
