# Builds the plug-in against a host's source tree, configured and built in HOST/build:
#
#   brew tap-new local/zmqwriter
#   cp setup/homebrew/zmqwriter.rb "$(brew --repository local/zmqwriter)/Formula/"
#   HOMEBREW_BRO_DIST=HOST HOMEBREW_ZMQWRITER_SOURCE=$PWD brew install --HEAD local/zmqwriter/zmqwriter
#
# Homebrew hides all variables from a formula but those that begin with HOMEBREW_.
class Zmqwriter < Formula
  desc "Log writer for the Bro network monitor that ships events over ZeroMQ"
  head "file://#{ENV["HOMEBREW_ZMQWRITER_SOURCE"]}", using: :git, branch: "main"

  depends_on "cmake" => :build
  depends_on "flatbuffers" => :build
  depends_on "zeromq"

  # For the agent's identifier and the spool: the places that are the default elsewhere are out of a
  # formula's reach.
  def folder
    var/"zmqwriter"
  end

  def install
    dist = ENV["HOMEBREW_BRO_DIST"].to_s
    odie "HOMEBREW_BRO_DIST must name the host's source tree" if dist.empty?
    system "./configure", "--bro-dist=#{dist}", "--install-root=#{lib}/bro/plugins",
           "--agent-id-dir=#{folder}", "--spool-dir=#{folder}/spool", "--no-prepare"
    system "make"
    system "make", "install"
  end

  def post_install
    mkdir_p folder, mode: 0700 unless folder.exist?
  end

  def caveats
    <<~EOS
      The host finds the plug-in if BRO_PLUGIN_PATH has this folder:
        #{opt_lib}/bro/plugins
      The agent's identifier and the spool lie in #{folder}.
      For zmqwriter-start, set ZMQWRITER_SPOOL=#{folder}/spool.
      If the host runs as another user than you, give it to that user:
        sudo chown USER #{folder}
    EOS
  end
end
