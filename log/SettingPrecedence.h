#pragma once
// Where a log setting comes from: Group Policy writes the administrator's values under
// "Software\Policies\..." and they win over the same values in the product's own key.
#include <string>
#include <string_view>
#include <utility>

namespace cvlog
{

enum class SettingSource
{
    Unset,   // in neither key: the built-in default (or the value in force) applies
    Policy,  // the policy key
    Product, // the product's own settings key
};

// The policy key of a product key: "Software\Corvane\Velomar (Server)" gives
// "Software\Policies\Corvane\Velomar (Server)". Empty for a key outside "Software\" or one that
// is a policy key already.
std::u16string PolicyKeyFor(std::u16string_view productSubKey);

// Asks the policy reader first and the product reader only when the policy key does not hold the
// value. A reader returns a status; `notFound` is the status of a value (or key) that is absent.
// A policy value that is present but unusable still wins: the policy is set, so the product key
// must not silently take over. Returns the status that counts and where it came from.
template <typename Status, typename PolicyReader, typename ProductReader>
std::pair<Status, SettingSource> ReadWithPrecedence(PolicyReader&& policy, ProductReader&& product,
                                                    Status notFound)
{
    const Status fromPolicy = policy();
    if (fromPolicy != notFound)
        return {fromPolicy, SettingSource::Policy};
    const Status fromProduct = product();
    return {fromProduct, fromProduct != notFound ? SettingSource::Product : SettingSource::Unset};
}

} // namespace cvlog
