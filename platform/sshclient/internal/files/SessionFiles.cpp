#include "sshfileaccess/platform/sshclient/internal/files/SessionFiles.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <deque>
#include <initializer_list>
#include <limits>
#include <list>
#include <map>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

#include "sshfileaccess/platform/sshclient/internal/files/Plans.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"

namespace foundation::sshclient::internal::files {

namespace {

using sftp::Attributes;
using sftp::PacketType;
using sftp::Reply;
using sftp::SftpSession;
using sftp::StatusCode;
using sftp::Ticket;
using transfer::joined;

constexpr std::uint32_t kNewFilePermissions = 0666;
constexpr std::uint32_t kPermissionBits = 0777;
constexpr std::uint32_t kOwnerAll = 0700;

[[noreturn]] void unexpected(std::string_view request) {
  throw sftp::ProtocolError("unexpected reply to " + std::string(request));
}

// The code of a reply that must be a STATUS.
StatusCode statusOf(Reply const& reply, std::string_view request) {
  if (reply.type != PacketType::Status) unexpected(request);
  return reply.status;
}

std::string causeOf(Reply const& reply) { return files::causeOf(reply.status, reply.message); }

// `pattern` with each "{}" replaced by the next of `parts`.
std::string filled(std::string_view pattern, std::initializer_list<std::string_view> parts) {
  std::string out;
  auto part = parts.begin();
  for (std::size_t at = 0; at < pattern.size();) {
    auto const hole = pattern.find("{}", at);
    out.append(pattern.substr(at, hole == std::string_view::npos ? std::string_view::npos : hole - at));
    if (hole == std::string_view::npos || part == parts.end()) break;
    out.append(*part++);
    at = hole + 2;
  }
  return out;
}

// "cannot <what> '<path>': <cause>"
std::string cannot(std::string_view what, std::string_view path, std::string_view cause) {
  return filled("cannot {} '{}': {}", {what, path, cause});
}

// The answer of LSTAT or STAT; a missing path is one.
FileStatus answerOf(Reply const& reply, std::string_view request) {
  if (reply.type == PacketType::Attrs) return files::statusOf(reply.attributes);
  if (statusOf(reply, request) == StatusCode::Ok) unexpected(request);
  FileStatus missing;
  if (reply.status != StatusCode::NoSuchFile) missing.error = causeOf(reply);
  return missing;
}

Attributes permissions(std::uint32_t bits) {
  Attributes attributes;
  attributes.permissions = bits;
  return attributes;
}

// Failures of one call, each with the position (in the caller's list) of
// the path it belongs to; thrown together, in that order.
class Failures {
 public:
  void add(std::size_t order, std::string line) { lines_.emplace_back(order, std::move(line)); }
  [[nodiscard]] bool any() const noexcept { return !lines_.empty(); }
  void throwIfAny() {
    if (lines_.empty()) return;
    std::stable_sort(lines_.begin(), lines_.end(), [](auto const& a, auto const& b) { return a.first < b.first; });
    std::vector<std::string> out;
    for (auto& [order, line] : lines_) {
      if (std::find(out.begin(), out.end(), line) == out.end()) out.push_back(std::move(line));
    }
    throw SftpError(std::move(out));
  }

 private:
  std::vector<std::pair<std::size_t, std::string>> lines_;
};

// Every request of a call, with the callback its reply goes to.
class Requests final : public sftp::ReplyHandler {
 public:
  using OnReply = std::function<void(Reply const&)>;

  Requests(SftpSession& session, std::size_t window) : session_(session), window_(std::max<std::size_t>(1, window)) {}

  // The ticket of a request whose reply goes to `onReply`.
  Ticket operator()(OnReply onReply) {
    auto const id = next_++;
    waiting_.emplace(id, std::move(onReply));
    return {this, 0, nullptr, id, 0};
  }

  void onReply(Ticket const& ticket, Reply const& reply) override {
    auto node = waiting_.extract(ticket.offset);
    if (!node.empty()) node.mapped()(reply);
  }

  // Until fewer than the window await their replies.
  void makeRoom() {
    while (waiting_.size() >= window_) pump();
  }
  // Until every request has its reply, those sent by callbacks too.
  void finish() {
    while (!waiting_.empty()) pump();
  }
  // Takes in replies, sleeping when none has come.
  void pump() {
    if (session_.pending() == 0 && session_.queuedBytes() == 0 && !waiting_.empty()) {
      throw std::logic_error("SFTP requests wait for replies that were never asked for");
    }
    session_.pump();
  }

 private:
  SftpSession& session_;
  std::size_t window_;
  std::uint64_t next_ = 0;
  std::unordered_map<std::uint64_t, OnReply> waiting_;
};

}  // namespace

class Call {
 public:
  Call(SftpSession& sftpSession, FilesOptions const& filesOptions, std::mt19937_64& randomBits)
      : session(sftpSession),
        options(filesOptions),
        random(randomBits),
        request(sftpSession, filesOptions.requestsInFlight) {}

  SftpSession& session;
  FilesOptions const& options;
  std::mt19937_64& random;
  Requests request;
};

namespace {

using Work = Call;
using Paths = SftpFiles::Paths;
using PathPairs = SftpFiles::PathPairs;

std::vector<FileStatus> statAll(Work& work, Paths const& paths, bool followLinks) {
  std::vector<FileStatus> out(paths.size());
  char const* const request = followLinks ? "STAT" : "LSTAT";
  for (std::size_t i = 0; i < paths.size(); ++i) {
    work.request.makeRoom();
    auto const ticket = work.request([&out, i, request](Reply const& reply) { out[i] = answerOf(reply, request); });
    if (followLinks) {
      work.session.stat(ticket, paths[i]);
    } else {
      work.session.lstat(ticket, paths[i]);
    }
  }
  work.request.finish();
  return out;
}

// Starts the queued jobs, at most `limit` of them active at once (`active`
// counts them; start() and the replies change it), and takes in replies
// until every job is done.
template <class Job, class Start>
void runQueue(Work& work, std::deque<Job>& queue, std::size_t limit, std::size_t const& active, Start start) {
  for (;;) {
    while (active < limit && !queue.empty()) {
      auto job = std::move(queue.front());
      queue.pop_front();
      start(std::move(job));
    }
    if (active == 0 && queue.empty()) break;
    work.request.pump();
  }
}

// One folder listed.
struct Listed {
  std::size_t tag = 0;  // the caller's
  std::string folder;
  FolderListing listing;
  std::string cause;  // of listing.error
};

// Lists folders, at most options.foldersOpen at once; `done` gets each
// listing as it completes and may add more folders.
class Lister {
 public:
  using Done = std::function<void(Listed&&)>;

  Lister(Work& work, Done done) : work_(work), done_(std::move(done)) {}

  void add(std::size_t tag, std::string folder) { queue_.push_back({tag, std::move(folder)}); }

  void run() {
    runQueue(work_, queue_, work_.options.foldersOpen, open_,
             [this](std::pair<std::size_t, std::string>&& next) { start(next.first, std::move(next.second)); });
  }

 private:
  struct Job {
    Listed listed;
    std::string handle;
    bool dot = false;
    bool dotDot = false;
    std::unordered_set<std::string> names;
  };
  using JobRef = std::list<Job>::iterator;

  void start(std::size_t tag, std::string folder) {
    ++open_;
    auto const job = jobs_.insert(jobs_.end(), Job{{tag, std::move(folder), {}, {}}, {}, false, false, {}});
    work_.session.opendir(work_.request([this, job](Reply const& reply) { opened(job, reply); }), job->listed.folder);
  }

  void opened(JobRef job, Reply const& reply) {
    if (reply.type == PacketType::Handle) {
      job->handle = std::string(reply.handle);
      readNext(job);
      return;
    }
    if (statusOf(reply, "OPENDIR") == StatusCode::Ok) unexpected("OPENDIR");
    failed(job, "open", reply);
    finish(job);
  }

  void readNext(JobRef job) {
    work_.session.readdir(work_.request([this, job](Reply const& reply) { read(job, reply); }), job->handle);
  }

  void read(JobRef job, Reply const& reply) {
    if (reply.type == PacketType::Name) {
      for (auto const& entry : reply.names) absorb(*job, entry);
      readNext(job);
      return;
    }
    if (statusOf(reply, "READDIR") != StatusCode::Eof) failed(job, "read", reply);
    work_.session.close(SftpSession::ignored(), job->handle);
    finish(job);
  }

  // The one "." and ".." go; other names that are not plain names, and a
  // name listed again (a folder after a link of that name), are kept apart,
  // never joined.
  static void absorb(Job& job, sftp::NameEntry const& entry) {
    auto& listing = job.listed.listing;
    if (entry.filename == "." && !job.dot) {
      job.dot = true;
    } else if (entry.filename == ".." && !job.dotDot) {
      job.dotDot = true;
    } else if (transfer::suspectName(entry.filename) || !job.names.emplace(entry.filename).second) {
      listing.suspectNames.emplace_back(entry.filename);
    } else {
      listing.entries.push_back({std::string(entry.filename), files::statusOf(entry.attributes)});
    }
  }

  static void failed(JobRef job, std::string_view what, Reply const& reply) {
    job->listed.cause = causeOf(reply);
    job->listed.listing.error = cannot(std::string(what) + " directory", job->listed.folder, job->listed.cause);
  }

  void finish(JobRef job) {
    --open_;
    auto listed = std::move(job->listed);
    jobs_.erase(job);
    done_(std::move(listed));
  }

  Work& work_;
  Done done_;
  std::deque<std::pair<std::size_t, std::string>> queue_;
  std::list<Job> jobs_;
  std::size_t open_ = 0;
};

// Lists every folder below `folders` (tags: their positions), links not
// followed; `entry(tag, path, status)` gets each entry, `listed` each
// listing.
void walkFolders(Work& work, std::vector<std::pair<std::size_t, std::string>> const& folders,
                 std::function<void(std::size_t, std::string, FileStatus const&)> const& entry,
                 std::function<void(Listed const&)> const& listed) {
  Lister lister(work, [&](Listed&& done) {
    for (auto& found : done.listing.entries) {
      auto path = joined(done.folder, found.name);
      if (found.status.kind == FileKind::Folder) lister.add(done.tag, path);
      entry(done.tag, std::move(path), found.status);
    }
    listed(done);
  });
  for (auto const& [tag, folder] : folders) lister.add(tag, folder);
  lister.run();
}

std::vector<Tree> walkTrees(Work& work, Paths const& roots, RootLinks rootLinks) {
  std::vector<Tree> trees(roots.size());
  auto const statuses = statAll(work, roots, rootLinks == RootLinks::Followed);
  std::vector<std::pair<std::size_t, std::string>> folders;
  for (std::size_t i = 0; i < roots.size(); ++i) {
    trees[i].root = statuses[i];
    if (statuses[i].kind == FileKind::Folder) folders.emplace_back(i, roots[i]);
  }
  walkFolders(
      work, folders,
      [&](std::size_t tag, std::string path, FileStatus const& status) {
        trees[tag].entries.push_back({std::move(path), status});
      },
      [&](Listed const& done) {
        auto& tree = trees[done.tag];
        for (auto const& name : done.listing.suspectNames) tree.suspectNames.push_back({done.folder, name});
        if (!done.listing.error.empty()) tree.unreadable.push_back(done.listing.error);
      });
  for (auto& tree : trees) {
    std::sort(tree.entries.begin(), tree.entries.end(),
              [](TreeEntry const& a, TreeEntry const& b) { return treeOrder(a.path, b.path); });
  }
  return trees;
}

std::vector<std::optional<std::string>> namesOf(Work& work, Paths const& paths, bool links) {
  std::vector<std::optional<std::string>> out(paths.size());
  char const* const request = links ? "READLINK" : "REALPATH";
  for (std::size_t i = 0; i < paths.size(); ++i) {
    work.request.makeRoom();
    auto const ticket = work.request([&out, i, request](Reply const& reply) {
      if (reply.type == PacketType::Name && !reply.names.empty()) {
        out[i] = std::string(reply.names.front().filename);
      } else if (reply.type != PacketType::Status || reply.status == StatusCode::Ok) {
        unexpected(request);
      }
    });
    if (links) {
      work.session.readlink(ticket, paths[i]);
    } else {
      work.session.realpath(ticket, paths[i]);
    }
  }
  work.request.finish();
  return out;
}

// Whether a folder above `path` is in `paths`.
bool underOneOf(std::unordered_set<std::string> const& paths, std::string const& path) {
  auto const above = foldersAbove(path);
  return std::any_of(above.begin(), above.end(), [&](std::string const& folder) { return paths.contains(folder); });
}

// MKDIR of every path in `levels` (by depth, shallowest first), one level
// per round trip; below a folder that could not be made nothing is tried.
// A folder that was there already, or made meanwhile, is fine.
// `failure(path, cause, exists)` reports one.
void makeLevels(Work& work, std::map<std::size_t, std::vector<std::pair<std::string, std::uint32_t>>> const& levels,
                std::unordered_set<std::string>& failed,
                std::function<void(std::string const&, std::string const&, bool)> const& failure) {
  for (auto const& level : levels) {
    for (auto const& folder : level.second) {
      std::string const& path = folder.first;
      if (underOneOf(failed, path)) {
        failed.insert(path);
        continue;
      }
      work.request.makeRoom();
      work.session.mkdir(work.request([&, path](Reply const& reply) {
        auto const status = statusOf(reply, "MKDIR");
        if (status == StatusCode::Ok) return;
        if (status != StatusCode::Failure) {
          failed.insert(path);
          failure(path, causeOf(reply), false);
          return;
        }
        // Something is there: a folder is fine.
        work.session.stat(work.request([&, path, cause = causeOf(reply)](Reply const& found) {
          auto const there = answerOf(found, "STAT");
          if (there.kind == FileKind::Folder) return;
          failed.insert(path);
          failure(path, there.exists() ? "File exists" : cause, there.exists());
        }),
                          path);
      }),
                         path, permissions(folder.second));
    }
    work.request.finish();
  }
}

void makeFoldersOf(Work& work, Paths const& paths) {
  Failures failures;
  std::vector<std::string> targets;
  std::vector<std::string> asked;
  std::unordered_map<std::string, std::size_t> askedAt;
  auto const ask = [&](std::string const& path) {
    if (askedAt.emplace(path, asked.size()).second) asked.push_back(path);
  };
  for (auto const& path : paths) {
    targets.push_back(withoutTrailingSlashes(path));
    ask(targets.back());
    for (auto const& folder : foldersAbove(targets.back())) ask(folder);
  }
  auto const statuses = statAll(work, asked, true);
  auto const statusAt = [&](std::string const& path) -> FileStatus const& { return statuses[askedAt.at(path)]; };

  // Each folder to make, with the first target that needs it.
  std::unordered_map<std::string, std::size_t> neededBy;
  std::map<std::size_t, std::vector<std::pair<std::string, std::uint32_t>>> levels;
  for (std::size_t i = 0; i < targets.size(); ++i) {
    auto const& target = targets[i];
    if (statusAt(target).kind == FileKind::Folder) continue;
    if (statusAt(target).exists()) {
      failures.add(i, cannot("create directory", target, "File exists"));
      continue;
    }
    std::vector<std::string> missing{target};
    auto const above = foldersAbove(target);
    bool blocked = false;
    for (auto folder = above.rbegin(); folder != above.rend() && !blocked; ++folder) {
      auto const& status = statusAt(*folder);
      // A folder the server will not show is taken to be there: MKDIR below
      // it says what is wrong.
      if (status.kind == FileKind::Folder || !status.error.empty()) break;
      if (status.exists()) {
        failures.add(i, cannot("create directory", *folder, "Not a directory"));
        blocked = true;
      } else {
        missing.push_back(*folder);
      }
    }
    if (blocked) continue;
    for (auto const& folder : missing) {
      if (neededBy.emplace(folder, i).second) levels[depth(folder)].emplace_back(folder, kPermissionBits);
    }
  }
  std::unordered_set<std::string> failed;
  makeLevels(work, levels, failed, [&](std::string const& path, std::string const& cause, bool /*exists*/) {
    failures.add(neededBy.at(path), cannot("create directory", path, cause));
  });
  failures.throwIfAny();
}

void removeAll(Work& work, Paths const& paths) {
  Failures failures;
  struct Item {
    std::string path;
    std::size_t order;
  };
  // A path that is refused ends the list before it: the paths after it may
  // have counted on it.
  std::size_t stop = paths.size();
  std::optional<std::string> refusal;
  for (std::size_t i = 0; i < paths.size() && !refusal; ++i) {
    refusal = refusedRemoval(paths[i]);
    if (refusal) stop = i;
  }
  Paths names;
  for (std::size_t i = 0; i < stop; ++i) names.push_back(withoutTrailingSlashes(paths[i]));
  auto const statuses = statAll(work, names, false);
  for (std::size_t i = 0; i < stop; ++i) {
    // "dir/link/" names what the link points to: nothing is removed through it.
    if (paths[i].ends_with('/') && statuses[i].exists() && statuses[i].kind != FileKind::Folder) {
      refusal = cannot("remove", paths[i], "Not a directory");
      stop = i;
    }
  }

  std::vector<Item> files;
  std::vector<Item> folders;
  std::vector<std::pair<std::size_t, std::string>> roots;
  for (std::size_t i = 0; i < stop; ++i) {
    auto const& status = statuses[i];
    if (!status.exists()) {
      if (!status.error.empty()) failures.add(i, cannot("remove", paths[i], status.error));
    } else if (status.kind == FileKind::Folder) {
      folders.push_back({names[i], i});
      roots.emplace_back(i, names[i]);
    } else {
      files.push_back({names[i], i});
    }
  }
  std::unordered_map<std::string, std::string> unreadable;
  walkFolders(
      work, roots,
      [&](std::size_t order, std::string path, FileStatus const& status) {
        (status.kind == FileKind::Folder ? folders : files).push_back({std::move(path), order});
      },
      [&](Listed const& done) {
        if (!done.cause.empty()) unreadable.emplace(done.folder, done.cause);
        for (auto const& name : done.listing.suspectNames) {
          failures.add(done.tag, filled("cannot remove '{}' from '{}': not a plain name", {name, done.folder}));
        }
      });

  // Files first, then folders from the deepest level up; a folder is not
  // reported when something below it failed already.
  std::unordered_set<std::string> aboveFailures;
  auto const failedAt = [&](Item const& item, std::string const& cause) {
    for (auto& folder : foldersAbove(item.path)) aboveFailures.insert(std::move(folder));
    if (aboveFailures.contains(item.path)) return;
    auto const found = unreadable.find(item.path);
    // A path the caller gave is named as given ("dir/").
    auto const& given = paths[item.order];
    failures.add(item.order, cannot("remove", withoutTrailingSlashes(given) == item.path ? given : item.path,
                                    found != unreadable.end() ? found->second : cause));
  };
  auto const removeEach = [&](std::vector<Item> const& items, bool asFolders) {
    for (auto const& item : items) {
      work.request.makeRoom();
      auto const ticket = work.request([&, item, asFolders](Reply const& reply) {
        auto const status = statusOf(reply, asFolders ? "RMDIR" : "REMOVE");
        if (status != StatusCode::Ok && status != StatusCode::NoSuchFile) failedAt(item, causeOf(reply));
      });
      if (asFolders) {
        work.session.rmdir(ticket, item.path);
      } else {
        work.session.remove(ticket, item.path);
      }
    }
    work.request.finish();
  };
  removeEach(files, false);
  std::map<std::size_t, std::vector<Item>, std::greater<>> levels;
  for (auto& folder : folders) levels[depth(folder.path)].push_back(std::move(folder));
  for (auto const& [level, items] : levels) removeEach(items, true);
  if (refusal) failures.add(stop, std::move(*refusal));
  failures.throwIfAny();
}

// The pairs [first, last) with each destination that is an existing folder
// replaced by the place in it that the source takes (Destination::IntoFolder).
PathPairs placed(Work& work, PathPairs const& pairs, std::size_t first, std::size_t last, Destination destination) {
  PathPairs run(pairs.begin() + static_cast<std::ptrdiff_t>(first), pairs.begin() + static_cast<std::ptrdiff_t>(last));
  if (destination == Destination::Exact) return run;
  Paths destinations;
  for (auto const& pair : run) destinations.push_back(pair.second);
  auto const statuses = statAll(work, destinations, true);
  for (std::size_t i = 0; i < run.size(); ++i) {
    if (statuses[i].kind == FileKind::Folder) run[i].second = intoFolder(run[i].first, run[i].second);
  }
  return run;
}

// Calls `each(first, jobs)` for each run of pairs that may go out together
// (from position `first`, placed as `destination` says), while nothing has
// failed: a later pair may depend on an earlier one.
void inRuns(Work& work, PathPairs const& pairs, Destination destination, Failures const& failures,
            std::function<void(std::size_t, PathPairs const&)> const& each) {
  auto starts = independentRuns(pairs);
  starts.push_back(pairs.size());
  for (std::size_t run = 0; run + 1 < starts.size() && !failures.any(); ++run) {
    each(starts[run], placed(work, pairs, starts[run], starts[run + 1], destination));
  }
}

void renameAll(Work& work, PathPairs const& pairs, Destination destination) {
  Failures failures;
  inRuns(work, pairs, destination, failures, [&](std::size_t first, PathPairs const& jobs) {
    for (std::size_t i = 0; i < jobs.size(); ++i) {
      work.request.makeRoom();
      work.session.rename(work.request([&, i](Reply const& reply) {
        if (statusOf(reply, "RENAME") == StatusCode::Ok) return;
        failures.add(first + i,
                     filled("cannot move '{}' to '{}': {}", {jobs[i].first, jobs[i].second, causeOf(reply)}));
      }),
                          jobs[i].first, jobs[i].second);
    }
    work.request.finish();
  });
  failures.throwIfAny();
}

void touchAll(Work& work, Paths const& paths, std::optional<std::int64_t> seconds) {
  Failures failures;
  auto const when = seconds.value_or(static_cast<std::int64_t>(std::time(nullptr)));
  if (when < 0 || when > std::numeric_limits<std::uint32_t>::max()) {
    for (std::size_t i = 0; i < paths.size(); ++i) {
      failures.add(i, cannot("touch", paths[i], "SFTP carries times from 1970 to 2106 only"));
    }
    failures.throwIfAny();
  }
  Attributes times;
  times.atime = static_cast<std::uint32_t>(when);
  times.mtime = times.atime;
  auto const failed = [&](std::size_t i, Reply const& reply) {
    failures.add(i, cannot("touch", paths[i], causeOf(reply)));
  };
  // An existing path only gets its times; a missing file is made (never
  // opened where it exists: a FIFO would block the server).
  auto const create = [&](std::size_t i) {
    Attributes attributes = permissions(kNewFilePermissions);
    auto const flags = sftp::openflags::kWrite | sftp::openflags::kCreate | sftp::openflags::kExclusive;
    work.session.open(work.request([&, i](Reply const& reply) {
      if (reply.type != PacketType::Handle) {
        if (statusOf(reply, "OPEN") == StatusCode::Ok) unexpected("OPEN");
        failed(i, reply);
        return;
      }
      auto const handle = std::string(reply.handle);
      if (seconds) {
        work.session.fsetstat(work.request([&, i](Reply const& set) {
          if (statusOf(set, "FSETSTAT") != StatusCode::Ok) failed(i, set);
        }),
                              handle, times);
      }
      work.session.close(work.request([&, i](Reply const& closed) {
        if (statusOf(closed, "CLOSE") != StatusCode::Ok) failed(i, closed);
      }),
                         handle);
    }),
                      paths[i], flags, attributes);
  };
  for (std::size_t i = 0; i < paths.size(); ++i) {
    work.request.makeRoom();
    work.session.setstat(work.request([&, i](Reply const& reply) {
      auto const status = statusOf(reply, "SETSTAT");
      if (status == StatusCode::NoSuchFile) {
        create(i);
      } else if (status != StatusCode::Ok) {
        failed(i, reply);
      }
    }),
                         paths[i], times);
  }
  work.request.finish();
  failures.throwIfAny();
}

// ---- copies on the server ---------------------------------------------------

struct FileJob {
  std::string source;
  std::string destination;
  std::uint32_t permissions = 0;
  std::size_t order = 0;
};

// Copies files a few at once: each to a temporary beside its destination
// (copy-data, or reads answered by writes), closed, then renamed into place.
class FileCopier {
 public:
  FileCopier(Work& work, Failures& failures) : work_(work), failures_(failures) {}

  void add(FileJob job) { queue_.push_back(std::move(job)); }

  void run() {
    runQueue(work_, queue_, work_.options.filesOpen, active_, [this](FileJob&& job) { start(std::move(job)); });
  }

 private:
  struct Copy {
    FileJob job;
    std::string temporary;
    std::string source;  // handles
    std::string target;
    int opening = 2;
    bool created = false;  // the temporary is ours
    bool failed = false;
    bool eof = false;
    std::uint64_t nextOffset = 0;
    std::size_t reading = 0;
    std::size_t writing = 0;
  };
  using CopyRef = std::list<Copy>::iterator;

  [[nodiscard]] bool copyData() const {
    return work_.options.useCopyData && !copyDataRefused_ && work_.session.offers(sftp::kCopyDataExtension);
  }

  std::string suffix() {
    std::array<char, 17> hex{};
    std::snprintf(hex.data(), hex.size(), "%016llx", static_cast<unsigned long long>(work_.random()));
    return hex.data();
  }

  void start(FileJob job) {
    ++active_;
    auto const copy = copies_.insert(copies_.end(), Copy{std::move(job), {}, {}, {}, 2, false, false, false, 0, 0, 0});
    copy->temporary = copyTemporary(copy->job.destination, suffix());
    work_.session.open(work_.request([this, copy](Reply const& reply) { opened(copy, reply, true); }), copy->job.source,
                       sftp::openflags::kRead, {});
    auto const flags = sftp::openflags::kWrite | sftp::openflags::kCreate | sftp::openflags::kExclusive;
    work_.session.open(work_.request([this, copy](Reply const& reply) { opened(copy, reply, false); }), copy->temporary,
                       flags, permissions(copy->job.permissions & kPermissionBits));
  }

  void opened(CopyRef copy, Reply const& reply, bool source) {
    --copy->opening;
    if (reply.type == PacketType::Handle) {
      (source ? copy->source : copy->target) = std::string(reply.handle);
      if (!source) copy->created = true;
    } else {
      if (statusOf(reply, "OPEN") == StatusCode::Ok) unexpected("OPEN");
      fail(copy, source ? cannot("open", copy->job.source, causeOf(reply)) + " for reading"
                        : cannot("create regular file", copy->job.destination, causeOf(reply)));
    }
    if (copy->opening > 0) return;
    if (copy->failed) {
      settle(copy);
    } else if (copyData()) {
      work_.session.copyData(work_.request([this, copy](Reply const& done) { copied(copy, done); }), copy->source, 0, 0,
                             copy->target, 0);
    } else {
      readMore(copy);
    }
  }

  // Where the error message sits after the path: "cannot open 'x' for reading".
  void fail(CopyRef copy, std::string line) {
    if (!copy->failed) failures_.add(copy->job.order, std::move(line));
    copy->failed = true;
  }

  void copied(CopyRef copy, Reply const& reply) {
    auto const status = statusOf(reply, "copy-data");
    // A server may offer it and still refuse it (a deny list): the copy goes
    // through this client instead, this file and the next.
    if (status == StatusCode::OpUnsupported || status == StatusCode::PermissionDenied) {
      copyDataRefused_ = true;
      readMore(copy);
      return;
    }
    if (status != StatusCode::Ok) {
      fail(copy, filled("cannot copy '{}' to '{}': {}", {copy->job.source, copy->job.destination, causeOf(reply)}));
      settle(copy);
      return;
    }
    copy->eof = true;
    settle(copy);
  }

  void readMore(CopyRef copy) {
    auto const chunk = work_.session.readChunk();
    while (!copy->failed && !copy->eof && copy->reading < work_.options.readsPerFile) {
      read(copy, copy->nextOffset, chunk);
      copy->nextOffset += chunk;
    }
  }

  void read(CopyRef copy, std::uint64_t offset, std::uint32_t length) {
    ++copy->reading;
    work_.session.read(
        work_.request([this, copy, offset, length](Reply const& reply) { arrived(copy, offset, length, reply); }),
        copy->source, offset, length);
  }

  void arrived(CopyRef copy, std::uint64_t offset, std::uint32_t length, Reply const& reply) {
    --copy->reading;
    if (reply.type == PacketType::Data) {
      if (reply.data.size() > length) unexpected("READ");
      if (!copy->failed) {
        ++copy->writing;
        work_.session.write(work_.request([this, copy](Reply const& written) {
          --copy->writing;
          if (statusOf(written, "WRITE") != StatusCode::Ok) {
            fail(copy, filled("error writing '{}': {}", {copy->job.destination, causeOf(written)}));
          }
          settle(copy);
        }),
                            copy->target, offset, reply.data);
        // A short read: the rest of the range is asked for again.
        auto const got = static_cast<std::uint32_t>(reply.data.size());
        if (got < length && got > 0) read(copy, offset + got, length - got);
        if (got == 0) copy->eof = true;
      }
    } else if (statusOf(reply, "READ") == StatusCode::Eof) {
      copy->eof = true;
    } else {
      fail(copy, filled("error reading '{}': {}", {copy->job.source, causeOf(reply)}));
    }
    readMore(copy);
    settle(copy);
  }

  // Once nothing is in flight: a complete copy is closed and renamed into
  // place; a failed one is closed and its temporary removed.
  void settle(CopyRef copy) {
    if (copy->reading > 0 || copy->writing > 0 || (!copy->failed && !copy->eof)) return;
    if (!copy->source.empty()) work_.session.close(SftpSession::ignored(), copy->source);
    copy->source.clear();
    if (copy->failed) {
      discard(copy);
      return;
    }
    work_.session.close(work_.request([this, copy](Reply const& reply) {
      if (statusOf(reply, "CLOSE") != StatusCode::Ok) {
        fail(copy, filled("error writing '{}': {}", {copy->job.destination, causeOf(reply)}));
        copy->target.clear();
        discard(copy);
        return;
      }
      copy->target.clear();
      place(copy);
    }),
                        copy->target);
  }

  void place(CopyRef copy) {
    auto const rename = [this, copy] {
      work_.session.rename(work_.request([this, copy](Reply const& reply) {
        if (statusOf(reply, "RENAME") != StatusCode::Ok) {
          fail(copy, cannot("create regular file", copy->job.destination, causeOf(reply)));
          discard(copy);
          return;
        }
        done(copy);
      }),
                           copy->temporary, copy->job.destination);
    };
    if (work_.session.replacingRename()) {
      rename();
      return;
    }
    // A plain RENAME refuses an existing target.
    work_.session.remove(work_.request([rename](Reply const& /*removed*/) { rename(); }), copy->job.destination);
  }

  void discard(CopyRef copy) {
    if (!copy->target.empty()) work_.session.close(SftpSession::ignored(), copy->target);
    if (copy->created) work_.session.remove(SftpSession::ignored(), copy->temporary);
    done(copy);
  }

  void done(CopyRef copy) {
    --active_;
    copies_.erase(copy);
  }

  Work& work_;
  Failures& failures_;
  std::deque<FileJob> queue_;
  std::list<Copy> copies_;
  std::size_t active_ = 0;
  bool copyDataRefused_ = false;
};

struct FolderJob {
  std::string source;
  std::string destination;
  std::uint32_t permissions = 0;
  std::size_t order = 0;
};

// Why pair `k` (its source walked as `tree`, its destination `target`) is
// not copied at all, or nullopt.
std::optional<std::string> refusedCopy(std::pair<std::string, std::string> const& pair, Tree const& tree,
                                       FileStatus const& target) {
  auto const& [source, destination] = pair;
  auto const& root = tree.root;
  if (!root.exists()) {
    return cannot("stat", source, root.error.empty() ? "No such file or directory" : root.error);
  }
  if (root.kind == FileKind::Folder) {
    if (within(source, destination)) {
      return filled("cannot copy a directory, '{}', into itself, '{}'", {source, destination});
    }
    if (target.exists() && target.kind != FileKind::Folder) {
      return filled("cannot overwrite non-directory '{}' with directory '{}'", {destination, source});
    }
    return std::nullopt;
  }
  if (target.kind == FileKind::Folder) {
    return filled("cannot overwrite directory '{}' with non-directory", {destination});
  }
  if (transfer::normalized(source) == transfer::normalized(destination)) {
    return filled("'{}' and '{}' are the same file", {source, destination});
  }
  return std::nullopt;
}

// Copies the pairs [0, count) of `pairs` (the first at position `first` of
// the caller's list), all planned and checked already.
void copyRun(Work& work, PathPairs const& pairs, std::size_t first, std::size_t count, std::vector<Tree> const& trees,
             std::vector<FileStatus> const& targets, Failures& failures) {
  std::map<std::size_t, std::vector<std::pair<std::string, std::uint32_t>>> levels;
  std::vector<FolderJob> folders;
  std::vector<FileJob> files;
  std::vector<FileJob> links;
  auto const take = [&](std::size_t k, std::string const& source, std::string destination, FileStatus const& status,
                        std::size_t level) {
    switch (status.kind) {
      case FileKind::Folder:
        // Made writable for its contents; its own permissions follow last.
        levels[level].emplace_back(destination, (status.permissions & kPermissionBits) | kOwnerAll);
        folders.push_back({source, std::move(destination), status.permissions & kPermissionBits, k});
        break;
      case FileKind::File:
        files.push_back({source, std::move(destination), status.permissions, k});
        break;
      case FileKind::Link:
        links.push_back({source, std::move(destination), 0, k});
        break;
      default:
        failures.add(k, filled("cannot copy '{}': SFTP makes only files, folders and links", {source}));
        break;
    }
  };
  for (std::size_t i = 0; i < count; ++i) {
    auto const k = first + i;
    auto const& [source, destination] = pairs[i];
    auto const& tree = trees[i];
    if (!(tree.root.kind == FileKind::Folder && targets[i].kind == FileKind::Folder)) {
      take(k, source, destination, tree.root, 0);
    }
    for (auto const& entry : tree.entries) {
      auto const part = below(source, entry.path);
      take(k, entry.path, joined(destination, part), entry.status, depth(part));
    }
    for (auto const& line : tree.unreadable) failures.add(k, line);
    for (auto const& suspect : tree.suspectNames) {
      failures.add(k, filled("cannot copy '{}' from '{}': not a plain name", {suspect.name, suspect.folder}));
    }
  }
  std::unordered_set<std::string> failed;
  std::unordered_map<std::string, FolderJob const*> folderOf;
  for (auto const& folder : folders) folderOf.emplace(folder.destination, &folder);
  makeLevels(work, levels, failed, [&](std::string const& path, std::string const& cause, bool exists) {
    auto const& job = *folderOf.at(path);
    failures.add(job.order, exists
                                ? filled("cannot overwrite non-directory '{}' with directory '{}'", {path, job.source})
                                : cannot("create directory", path, cause));
  });

  FileCopier copier(work, failures);
  for (auto& file : files) {
    if (!underOneOf(failed, file.destination)) copier.add(std::move(file));
  }
  copier.run();

  for (auto const& link : links) {
    if (underOneOf(failed, link.destination)) continue;
    work.request.makeRoom();
    work.session.readlink(work.request([&work, &failures, &link](Reply const& reply) {
      if (reply.type != PacketType::Name || reply.names.empty()) {
        if (statusOf(reply, "READLINK") == StatusCode::Ok) unexpected("READLINK");
        failures.add(link.order, cannot("read symbolic link", link.source, causeOf(reply)));
        return;
      }
      auto const target = std::string(reply.names.front().filename);
      auto const made = [&failures, &link](Reply const& result) {
        if (statusOf(result, "SYMLINK") != StatusCode::Ok) {
          failures.add(link.order, cannot("create symbolic link", link.destination, causeOf(result)));
        }
      };
      // An existing entry is replaced, as cp -r does.
      work.session.symlink(work.request([&work, &link, target, made](Reply const& result) {
        if (statusOf(result, "SYMLINK") != StatusCode::Failure) {
          made(result);
          return;
        }
        work.session.remove(work.request([&work, &link, target, made](Reply const& /*removed*/) {
          work.session.symlink(work.request(made), target, link.destination);
        }),
                            link.destination);
      }),
                           target, link.destination);
    }),
                          link.source);
  }
  work.request.finish();

  for (auto const& folder : folders) {
    if ((folder.permissions & kOwnerAll) == kOwnerAll || failed.contains(folder.destination)) continue;
    work.request.makeRoom();
    work.session.setstat(work.request([&failures, &folder](Reply const& reply) {
      if (statusOf(reply, "SETSTAT") != StatusCode::Ok) {
        failures.add(folder.order, cannot("set the permissions of", folder.destination, causeOf(reply)));
      }
    }),
                         folder.destination, permissions(folder.permissions));
  }
  work.request.finish();
}

void copyAll(Work& work, PathPairs const& pairs, Destination destination) {
  Failures failures;
  inRuns(work, pairs, destination, failures, [&](std::size_t first, PathPairs const& jobs) {
    Paths sources;
    Paths destinations;
    for (auto const& [source, target] : jobs) {
      sources.push_back(source);
      destinations.push_back(target);
    }
    auto const trees = walkTrees(work, sources, RootLinks::Kept);
    auto const targets = statAll(work, destinations, false);
    std::optional<std::string> refusal;
    auto count = jobs.size();
    for (std::size_t i = 0; i < jobs.size() && !refusal; ++i) {
      refusal = refusedCopy(jobs[i], trees[i], targets[i]);
      if (refusal) count = i;
    }
    copyRun(work, jobs, first, count, trees, targets, failures);
    if (refusal) failures.add(first + count, std::move(*refusal));
  });
  failures.throwIfAny();
}

}  // namespace

// ---- SessionFiles -------------------------------------------------------------

SessionFiles::SessionFiles(OpenLink openLink, FilesOptions options)
    : openLink_(std::move(openLink)), options_(options), random_(std::random_device{}()) {}

SessionFiles::~SessionFiles() = default;

void SessionFiles::run(std::function<void(Call&)> const& body) {
  try {
    if (!link_) {
      link_ = openLink_();
      peer_ = link_->session().peer();
    }
    Call work(link_->session(), options_, random_);
    body(work);
  } catch (SftpError const&) {
    throw;
  } catch (sftp::ProtocolError const& e) {
    link_.reset();
    throw SSHError(SSHError::Kind::Transfer, peer_ + ": " + e.what());
  } catch (...) {
    link_.reset();
    throw;
  }
}

std::vector<FileStatus> SessionFiles::lstat(Paths const& paths) {
  std::vector<FileStatus> out;
  if (paths.empty()) return out;
  run([&](Work& work) { out = statAll(work, paths, false); });
  return out;
}

std::vector<FileStatus> SessionFiles::stat(Paths const& paths) {
  std::vector<FileStatus> out;
  if (paths.empty()) return out;
  run([&](Work& work) { out = statAll(work, paths, true); });
  return out;
}

std::vector<FolderListing> SessionFiles::list(Paths const& folders) {
  std::vector<FolderListing> out(folders.size());
  if (folders.empty()) return out;
  run([&](Work& work) {
    Lister lister(work, [&](Listed&& done) { out[done.tag] = std::move(done.listing); });
    for (std::size_t i = 0; i < folders.size(); ++i) lister.add(i, folders[i]);
    lister.run();
  });
  return out;
}

std::vector<Tree> SessionFiles::walk(Paths const& roots, RootLinks rootLinks) {
  std::vector<Tree> out;
  if (roots.empty()) return out;
  run([&](Work& work) { out = walkTrees(work, roots, rootLinks); });
  return out;
}

std::vector<std::optional<std::string>> SessionFiles::readlink(Paths const& paths) {
  std::vector<std::optional<std::string>> out;
  if (paths.empty()) return out;
  run([&](Work& work) { out = namesOf(work, paths, true); });
  return out;
}

std::vector<std::optional<std::string>> SessionFiles::realpath(Paths const& paths) {
  std::vector<std::optional<std::string>> out;
  if (paths.empty()) return out;
  run([&](Work& work) { out = namesOf(work, paths, false); });
  return out;
}

void SessionFiles::makeFolders(Paths const& paths) {
  if (paths.empty()) return;
  run([&](Work& work) { makeFoldersOf(work, paths); });
}

void SessionFiles::remove(Paths const& paths) {
  if (paths.empty()) return;
  run([&](Work& work) { removeAll(work, paths); });
}

void SessionFiles::rename(PathPairs const& pairs, Destination destination) {
  if (pairs.empty()) return;
  run([&](Work& work) { renameAll(work, pairs, destination); });
}

void SessionFiles::touch(Paths const& paths, std::optional<std::int64_t> seconds) {
  if (paths.empty()) return;
  run([&](Work& work) { touchAll(work, paths, seconds); });
}

void SessionFiles::copy(PathPairs const& pairs, Destination destination) {
  if (pairs.empty()) return;
  run([&](Work& work) { copyAll(work, pairs, destination); });
}

}  // namespace foundation::sshclient::internal::files
