#include "Velum/Platform/Linux/Certificates/Trust.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "Velum/Platform/CertificateStore.h"

namespace velum {
namespace {

/// In the order of TrustByUse.
constexpr std::array<std::string_view, trustUseCount> policies{"sslServer", "sslClient", "SMIME",
                                                               "CodeSigning"};
constexpr std::array<std::pair<Trust, std::int64_t>, 3> results{{
    {Trust::authority, trustResultTrustRoot},
    {Trust::itself, trustResultTrustAsRoot},
    {Trust::denied, trustResultDeny},
}};

/// Whether that is the most that one can think of a certificate: an authority that is trusted
/// itself only is not one all of whose issues count.
bool isFull(Trust trust, bool isAuthority) {
  return trust == Trust::authority || (trust == Trust::itself && !isAuthority);
}

bool apply(const PropertyList& setting, TrustByUse& trust) {
  const auto* const result = setting.get<std::int64_t>(trustSettingsResultKey);
  const auto* const policy = setting.get<std::string>(trustSettingsPolicyKey);
  const auto* const dictionary = setting.get<PropertyList::Dictionary>();
  const std::size_t understood = (result != nullptr ? 1U : 0U) + (policy != nullptr ? 1U : 0U);
  if (result == nullptr || dictionary->size() != understood) return false;
  const auto* const known = std::ranges::find(results, *result, [](auto& r) { return r.second; });
  if (known == results.end()) return false;
  if (policy == nullptr) {
    trust.fill(known->first);
    return true;
  }
  const auto* const use = std::ranges::find(policies, *policy);
  if (use == policies.end()) return false;
  trust.at(static_cast<std::size_t>(use - policies.begin())) = known->first;
  return true;
}

}  // namespace

PropertyList settingsOfTrust(const TrustByUse& trust, bool isAuthority) {
  PropertyList::Array settings;
  if (std::ranges::all_of(trust, [&](Trust one) { return isFull(one, isAuthority); })) {
    return PropertyList(settings);
  }
  for (std::size_t use = 0; use < trust.size(); ++use) {
    for (const auto& [kind, result] : results) {
      if (kind != trust.at(use)) continue;
      PropertyList::Dictionary setting;
      setting.emplace(trustSettingsPolicyKey, PropertyList(std::string(policies.at(use))));
      setting.emplace(trustSettingsResultKey, PropertyList(result));
      settings.emplace_back(std::move(setting));
    }
  }
  return PropertyList(std::move(settings));
}

std::optional<TrustByUse> trustOfSettings(const PropertyList& settings, bool isAuthority) {
  const auto* const list = settings.get<PropertyList::Array>();
  if (list == nullptr) return std::nullopt;
  TrustByUse trust{};
  if (list->empty()) trust.fill(isAuthority ? Trust::authority : Trust::itself);
  for (const PropertyList& setting : *list) {
    if (!apply(setting, trust)) return std::nullopt;
  }
  return trust;
}

}  // namespace velum
