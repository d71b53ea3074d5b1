#pragma once
// Callback holders: a callback of one fixed signature that can be stored, copied (Clone) and
// called without knowing who implements it. Threads, pipe streams and servers keep their
// callbacks only in these.
#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

template <typename Sig> class CCallbackHolder;

template <typename R, typename... A> class CCallbackHolder<R(A...)>
{
public:
    using result_type = R;
    using FunctionHolderBase = CCallbackHolder<R(A...)>;

    virtual ~CCallbackHolder() = default;
    virtual R Invoke(A... args) = 0;
    virtual std::shared_ptr<CCallbackHolder> Clone() const = 0;
};

// Binds an object and one of its member functions; trailing arguments (Bound...) are fixed at
// construction and passed after the signature's own arguments.
template <typename C, typename Sig, typename... Bound> class MemberFunctionHolder;

template <typename C, typename R, typename... A, typename... Bound>
class MemberFunctionHolder<C, R(A...), Bound...> : public CCallbackHolder<R(A...)>
{
public:
    using Method = R (C::*)(A..., Bound...);

    MemberFunctionHolder(C* object, Method method, Bound... bound)
        : m_pObject(object), m_pMethod(method), m_bound(std::move(bound)...)
    {
    }

    R Invoke(A... args) override
    {
        return std::apply([&](auto&... bound) -> R { return (m_pObject->*m_pMethod)(args..., bound...); },
                          m_bound);
    }
    std::shared_ptr<CCallbackHolder<R(A...)>> Clone() const override
    {
        return std::make_shared<MemberFunctionHolder>(*this);
    }

private:
    C* m_pObject;
    Method m_pMethod;
    std::tuple<Bound...> m_bound;
};

// Holds any call object (a std::bind expression, a lambda) of a compatible signature.
template <typename F, typename Holder> class GlobalFunctionHolder;

template <typename F, typename R, typename... A>
class GlobalFunctionHolder<F, CCallbackHolder<R(A...)>> : public CCallbackHolder<R(A...)>
{
public:
    explicit GlobalFunctionHolder(F function) : m_function(std::move(function)) {}

    R Invoke(A... args) override
    {
        if constexpr (std::is_void_v<R>)
            std::invoke(m_function, args...);
        else
            return std::invoke(m_function, args...);
    }
    std::shared_ptr<CCallbackHolder<R(A...)>> Clone() const override
    {
        return std::make_shared<GlobalFunctionHolder>(*this);
    }

private:
    F m_function;
};

template <typename Sig, typename C, typename Method, typename... Bound>
std::shared_ptr<CCallbackHolder<Sig>> MakeMemberCallback(C* object, Method method, Bound... bound)
{
    return std::make_shared<MemberFunctionHolder<C, Sig, Bound...>>(object, method, std::move(bound)...);
}

template <typename Sig, typename F> std::shared_ptr<CCallbackHolder<Sig>> MakeGlobalCallback(F function)
{
    return std::make_shared<GlobalFunctionHolder<F, CCallbackHolder<Sig>>>(std::move(function));
}

// One typed argument kept next to a holder, so that a single task type can carry callbacks of
// different argument types.
template <typename R> class CCallbackArgumentHolder
{
public:
    class CParamHolderBase
    {
    public:
        virtual ~CParamHolderBase() = default;
        virtual R Call() = 0;
    };

    template <typename P> class CParamHolder : public CParamHolderBase
    {
    public:
        CParamHolder(std::shared_ptr<CCallbackHolder<R(P)>> callback, P argument)
            : m_pCallback(std::move(callback)), m_argument(std::move(argument))
        {
        }
        R Call() override { return m_pCallback->Invoke(m_argument); }

    private:
        std::shared_ptr<CCallbackHolder<R(P)>> m_pCallback;
        P m_argument;
    };
};
