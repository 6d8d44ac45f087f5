#include "Commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "CurveKey.h"
#include "Files.h"
#include "OptionChecks.h"
#include "Output.h"

namespace zmqwriter {

namespace {

[[noreturn]] void fail(const std::string& file, const std::string& what) {
  throw std::runtime_error(file + ": " + what);
}

/// Creates `file`, which must not exist, with `mode`. Removes it again after a failure.
void create_file(const std::string& file, const std::string& content, mode_t mode) {
  const FileDescriptor descriptor(
      open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (descriptor.get() < 0 && errno == EEXIST)
    fail(file, "exists already and is not overwritten; move it away or choose another --dir");
  if (descriptor.get() < 0)
    fail(file, std::string("cannot be created: ") + std::strerror(errno));
  if (write_fully(descriptor.get(), content) == content.size() && fsync(descriptor.get()) == 0)
    return;
  const int error = errno;
  unlink(file.c_str());
  fail(file, std::string("cannot be written: ") + std::strerror(error));
}

void make_folder(const std::string& folder) {
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
    fail(folder, std::string("cannot create the folder: ") + std::strerror(errno));
}

int make_keys(const std::string& folder) {
  make_folder(folder);
  const std::string public_file = folder + "/server.public";
  const std::string secret_file = folder + "/server.secret";
  const CurveKeyPair pair = make_curve_key_pair();
  create_file(secret_file, to_hex(pair.secret_key) + "\n", 0600);
  try {
    create_file(public_file, to_hex(pair.public_key) + "\n", 0644);
  } catch (...) {
    // A lone secret key would stop the next attempt.
    unlink(secret_file.c_str());
    throw;
  }

  std::fprintf(stderr,
               "Wrote %s (for the agents) and %s (for the collector; keep it secret).\n"
               "The agents' settings file needs this line:\n",
               public_file.c_str(), secret_file.c_str());
  Output out;
  out.WriteLine("zmq.public_key = " + to_hex(pair.public_key));
  out.Finish();
  return 0;
}

int derive(const std::string& secret_file) {
  const CurveKey key = read_secret_key_file(secret_file);
  Output out;
  out.WriteLine(to_hex(public_key_of(key)));
  out.Finish();
  return 0;
}

}  // namespace

void add_keygen_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("keygen",
                         "Make a collector's CURVE key pair: server.public for the "
                         "agents, server.secret (mode 0600) for the collector");
  const auto folder = std::make_shared<std::string>(".");
  CLI::Option* const dir =
      command->add_option("--dir", *folder, "Folder for the two files; created if it is missing")
          ->type_name("DIR")
          ->check(not_empty("the folder's name is empty; '.' is the current folder"))
          ->capture_default_str();
  const auto secret = std::make_shared<std::string>();
  command
      ->add_option("--public", *secret,
                   "Make no keys, print the public key of the secret key in this file")
      ->type_name("FILE")
      ->check(not_empty())
      ->excludes(dir);
  command->callback([=] { *exit_code = secret->empty() ? make_keys(*folder) : derive(*secret); });
}

}  // namespace zmqwriter
