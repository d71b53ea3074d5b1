#pragma once
// The item interface of the servers and connection handlers.
#include "common/BaseLogger.h"

#include <string>

class IBaseItem : public CommonHelper::CvLogger::CBaseLogger
{
public:
    using CBaseLogger::CBaseLogger;
    ~IBaseItem() override = default;

    // The item's name for log texts.
    virtual std::wstring GetName() const { return {}; }
    // A notification carrying one opaque pointer; nothing happens by default.
    virtual void OnNotify(void* /*data*/) {}
    // Both return 1 on success.
    virtual int Start() = 0;
    virtual int Stop() = 0;
};
