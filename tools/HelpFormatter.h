// How --help looks, for the program and all its subcommands.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace zmqwriter {

/// As CLI11's own, but fit for a terminal of 80 columns and to be read without knowing CLI11:
/// "-h, --help" with a blank, sets of values as "json|text|raw", and what is required or the
/// default said behind the description. To be given to the program before it gets subcommands.
///
/// The manual pages are made from its output, so what begins a line matters there.
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
