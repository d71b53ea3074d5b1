#pragma once
// What a log file asks of its logger before it creates or rotates a file: whether the folder is
// a mount point, which would let the writes land somewhere else.
#include <string>

class IJunctionCheck
{
public:
    virtual bool IsJunction(const std::wstring& folder) const = 0;

protected:
    ~IJunctionCheck() = default;
};
