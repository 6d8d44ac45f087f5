// The format of --help, for the program and all its subcommands.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace zmqwriter {

/// Like CLI11's own, but wrapped for a terminal of 80 columns: "-h, --help" with a blank, sets of
/// values as "json|text|raw", "(required)" or the default after the description. To be set before
/// the program gets subcommands. The manual pages are made from this output by the starts of its
/// lines.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter();

  std::string make_description(const CLI::App* app) const override;
  std::string make_subcommand(const CLI::App* subcommand) const override;
  std::string make_option(const CLI::Option* option, bool is_positional) const override;
  std::string make_option_name(const CLI::Option* option, bool is_positional) const override;
  std::string make_option_opts(const CLI::Option* option) const override;
  std::string make_option_desc(const CLI::Option* option) const override;

 private:
  std::string make_row(const std::string& name, const std::string& description) const;
};

}  // namespace zmqwriter
