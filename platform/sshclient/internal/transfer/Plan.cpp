#include "sshfileaccess/platform/sshclient/internal/transfer/Plan.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <unordered_set>

#include "sshfileaccess/platform/sshclient/internal/transfer/Stripes.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

namespace foundation::sshclient::internal::transfer {

namespace {

constexpr std::uint32_t kPermissionBits = 0777;
constexpr std::uint32_t kModeBits = 07777;
constexpr std::size_t kSteps = static_cast<std::size_t>(Step::Delete) + 1;

Action actionFor(Step step, std::string const& name, Entry const* source, Entry const* existing) {
  Action action;
  action.step = step;
  action.name = name;
  action.source = source;
  action.existing = existing;
  return action;
}

// With update, a destination file later than its source stays as it is.
bool newerThere(Entry const& source, Entry const& existing, PlanSettings const& settings) {
  return settings.update && existing.type == EntryType::File && source.mtime && existing.mtime &&
         *existing.mtime > *source.mtime;
}

bool unchangedFile(Entry const& source, Entry const& existing, PlanSettings const& settings,
                   ChecksumAnswers const& checksums) {
  if (settings.skipUnchanged == UnchangedTest::None || existing.type != EntryType::File ||
      existing.size != source.size) {
    return false;
  }
  if (settings.skipUnchanged == UnchangedTest::Checksum) {
    auto const answer = checksums.find(source.name);
    return answer != checksums.end() && answer->second;
  }
  return source.mtime && existing.mtime == source.mtime;
}

// What a source file or link becomes where `existing` lies.
Action placeData(Entry const& source, Entry const* existing, PlanSettings const& settings,
                 ChecksumAnswers const& checksums) {
  auto action = actionFor(source.type == EntryType::Link ? Step::Link : Step::Copy, source.name, &source, existing);
  if (existing == nullptr) return action;
  if (existing->type == EntryType::Folder) {
    if (settings.replaceInTheWay && settings.deleteExtraneous) {
      action.replace = true;
    } else {
      action.step = Step::Fail;
      action.problem = Problem::FolderInTheWay;
    }
    return action;
  }
  if (source.type == EntryType::Link) {
    // An equal link is left as it is, like an unchanged file.
    bool const equal = existing->type == EntryType::Link && existing->linkTarget == source.linkTarget;
    if (settings.skipUnchanged != UnchangedTest::None && equal) action.step = Step::Skip;
    return action;
  }
  if (newerThere(source, *existing, settings)) {
    action.step = Step::Skip;
    action.newer = true;
    return action;
  }
  if (unchangedFile(source, *existing, settings, checksums)) {
    auto const wanted = kept(source, settings);
    bool const differs = modeDiffers(*existing, wanted, settings) || timeDiffers(*existing, wanted);
    action.step = differs ? Step::FixAttributes : Step::Skip;
  }
  return action;
}

// What a source folder becomes where `existing` lies. A link there is
// replaced, never followed.
Action placeFolder(Entry const& source, Entry const* existing, PlanSettings const& settings) {
  auto action = actionFor(Step::MakeFolder, source.name, &source, existing);
  if (existing == nullptr) return action;
  if (existing->type == EntryType::Folder) {
    action.step = Step::EnterFolder;
  } else if (existing->type == EntryType::Link || settings.replaceInTheWay) {
    action.replace = true;
  } else {
    action.step = Step::Fail;
    action.problem = Problem::FileInTheWay;
  }
  return action;
}

// A file that Auto may send as a delta, once the link is known.
bool deltaCandidate(Entry const& source, Entry const& existing) {
  return source.type == EntryType::File && existing.type == EntryType::File &&
         std::min(source.size, existing.size) >= kAutoDeltaMinimum;
}

bool resumableFor(Action const& action, Entry const& temporary, PlanSettings const& settings) {
  auto const& source = *action.source;
  return settings.resume && action.step == Step::Copy && source.type == EntryType::File && action.temporary.empty() &&
         temporary.type == EntryType::File && temporary.size > 0 && temporary.size <= source.size &&
         temporary.name == resumableName(source.name, source.size, source.mtime);
}

}  // namespace

PlanSettings PlanSettings::from(TreeTransferOptions const& options) {
  PlanSettings settings;
  settings.skipUnchanged = options.skipUnchanged;
  settings.deleteExtraneous = options.deleteExtraneous;
  settings.resume = options.resume;
  settings.keepPermissions = options.keepPermissions;
  settings.keepSpecialBits = options.keepSpecialBits;
  settings.keepTimes = options.keepTimes;
  settings.replaceInTheWay = options.replaceInTheWay;
  settings.delta = options.delta;
  settings.update = options.update;
  return settings;
}

Kept kept(Entry const& source, PlanSettings const& settings) {
  Kept wanted;
  if (settings.keepPermissions && source.mode) {
    wanted.mode = *source.mode & (settings.keepSpecialBits ? kModeBits : kPermissionBits);
  }
  if (settings.keepTimes && source.mtime) {
    wanted.mtime = source.mtime;
    wanted.atime = source.atime.value_or(*source.mtime);
  }
  return wanted;
}

bool modeDiffers(Entry const& existing, Kept const& wanted, PlanSettings const& settings) {
  auto const mask = settings.keepSpecialBits ? kModeBits : kPermissionBits;
  return wanted.mode && (!existing.mode || (*existing.mode & mask) != *wanted.mode);
}

bool timeDiffers(Entry const& existing, Kept const& wanted) { return wanted.mtime && existing.mtime != wanted.mtime; }

std::vector<std::string> checksumCandidates(Listing const& source, Listing const* destination,
                                            PlanSettings const& settings) {
  std::vector<std::string> names;
  if (settings.skipUnchanged != UnchangedTest::Checksum || destination == nullptr) return names;
  for (auto const& entry : source.entries) {
    if (entry.type != EntryType::File) continue;
    auto const* existing = destination->find(entry.name);
    if (existing != nullptr && existing->type == EntryType::File && existing->size == entry.size &&
        !newerThere(entry, *existing, settings)) {
      names.push_back(entry.name);
    }
  }
  return names;
}

bool sendsDelta(Entry const& source, Entry const& existing, PlanSettings const& settings) {
  if (source.type != EntryType::File || existing.type != EntryType::File) return false;
  switch (settings.delta) {
    case DeltaMode::Off:
      return false;
    case DeltaMode::Always:
      return true;
    case DeltaMode::Auto:
      return deltaCandidate(source, existing) && settings.link &&
             deltaPays(source.size, existing.size, *settings.link, settings.deltaCosts);
  }
  return false;
}

Entry const* linkSpeedNeededFor(Listing const& source, Listing const* destination, PlanSettings const& settings,
                                ChecksumAnswers const& checksums) {
  if (settings.delta != DeltaMode::Auto || settings.link || destination == nullptr) return nullptr;
  auto const found = std::find_if(source.entries.begin(), source.entries.end(), [&](Entry const& entry) {
    auto const* existing = destination->find(entry.name);
    return existing != nullptr && deltaCandidate(entry, *existing) &&
           !unchangedFile(entry, *existing, settings, checksums);
  });
  return found != source.entries.end() ? &*found : nullptr;
}

FolderPlan planFolder(Listing const& source, Listing const* destination, PlanSettings const& settings,
                      FolderScope scope, ChecksumAnswers const& checksums, KeptNames const& kept) {
  std::array<std::vector<Action>, kSteps> steps;
  auto const add = [&steps](Action action) {
    steps[static_cast<std::size_t>(action.step)].push_back(std::move(action));
  };

  // Temporaries of ours in the destination, by the name they were made for.
  std::unordered_map<std::string_view, std::vector<Entry const*>> temporaries;
  if (destination != nullptr) {
    for (auto const& entry : destination->entries) {
      if (auto const owner = temporaryOwner(entry.name)) temporaries[*owner].push_back(&entry);
    }
  }
  std::unordered_set<Entry const*> claimed;

  for (auto const& entry : source.entries) {
    auto const* existing = destination != nullptr ? destination->find(entry.name) : nullptr;
    Action action;
    switch (entry.type) {
      case EntryType::Folder:
        action = placeFolder(entry, existing, settings);
        break;
      case EntryType::File:
      case EntryType::Link:
        action = placeData(entry, existing, settings, checksums);
        break;
      default:
        action = actionFor(Step::Special, entry.name, &entry, existing);
        break;
    }
    if (!temporaries.empty() && (entry.type == EntryType::File || entry.type == EntryType::Link)) {
      // A file's temporaries: the resumable one continues its copy, the
      // others go. Temporaries of names the source lacks are left alone.
      if (auto const found = temporaries.find(ownerKey(entry.name)); found != temporaries.end()) {
        for (auto const* temporary : found->second) {
          if (!claimed.insert(temporary).second) continue;
          auto const from = settings.sharedOut ? trustedPrefix(temporary->size, entry.size) : temporary->size;
          if (resumableFor(action, *temporary, settings) && from > 0) {
            action.temporary = temporary->name;
            action.resumeFrom = from;
            continue;
          }
          add(actionFor(Step::RemoveTemporary, temporary->name, nullptr, temporary));
        }
      }
    }
    // A resumable temporary wins: it holds more of the source than blocks would.
    if (action.step == Step::Copy && action.temporary.empty() && !action.replace && existing != nullptr &&
        sendsDelta(entry, *existing, settings)) {
      action.step = Step::Delta;
    }
    add(std::move(action));
  }

  if (destination != nullptr && scope.deletes && !scope.aboveRoots && settings.deleteExtraneous) {
    for (auto const& entry : destination->entries) {
      if (source.find(entry.name) != nullptr || claimed.contains(&entry) || kept.contains(entry.name)) continue;
      add(actionFor(Step::Delete, entry.name, nullptr, &entry));
    }
  }

  FolderPlan plan;
  std::size_t total = 0;
  for (auto const& step : steps) total += step.size();
  plan.actions.reserve(total);
  for (auto& step : steps) std::move(step.begin(), step.end(), std::back_inserter(plan.actions));
  return plan;
}

Entry const* Listing::find(std::string_view name) const {
  auto const at = std::lower_bound(entries.begin(), entries.end(), name,
                                   [](Entry const& entry, std::string_view key) { return entry.name < key; });
  return at != entries.end() && at->name == name ? &*at : nullptr;
}

void Listing::sort() {
  std::sort(entries.begin(), entries.end(), [](Entry const& a, Entry const& b) { return a.name < b.name; });
}

EntryType typeOfMode(std::uint32_t mode) noexcept {
  switch (mode & 0170000U) {
    case 0040000U:
      return EntryType::Folder;
    case 0120000U:
      return EntryType::Link;
    case 0010000U:
      return EntryType::Fifo;
    case 0140000U:
      return EntryType::Socket;
    case 0020000U:
    case 0060000U:
      return EntryType::Device;
    case 0100000U:
    case 0U:
      return EntryType::File;
    default:
      return EntryType::Other;
  }
}

}  // namespace foundation::sshclient::internal::transfer
