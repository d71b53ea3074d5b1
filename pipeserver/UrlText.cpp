#include "pipeserver/UrlText.h"

namespace urlpolicy::detail
{

void AppendUtf8(std::string& out, char32_t c)
{
    if (c < 0x80)
        out += static_cast<char>(c);
    else if (c < 0x800)
    {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
    else if (c < 0x10000)
    {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
    else
    {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

bool DecodeUtf8(const std::string& bytes, std::u32string& out)
{
    for (size_t i = 0; i < bytes.size();)
    {
        const auto b0 = static_cast<unsigned char>(bytes[i]);
        size_t extra = 0;
        char32_t c = 0;
        char32_t minimum = 0;
        if (b0 < 0x80)
            c = b0;
        else if ((b0 & 0xE0) == 0xC0)
            extra = 1, c = b0 & 0x1F, minimum = 0x80;
        else if ((b0 & 0xF0) == 0xE0)
            extra = 2, c = b0 & 0x0F, minimum = 0x800;
        else if ((b0 & 0xF8) == 0xF0)
            extra = 3, c = b0 & 0x07, minimum = 0x10000;
        else
            return false;
        if (bytes.size() - i <= extra)
            return false;
        for (size_t k = 1; k <= extra; ++k)
        {
            const auto b = static_cast<unsigned char>(bytes[i + k]);
            if ((b & 0xC0) != 0x80)
                return false;
            c = (c << 6) | (b & 0x3F);
        }
        if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
            return false;
        out += c;
        i += extra + 1;
    }
    return true;
}

} // namespace urlpolicy::detail
