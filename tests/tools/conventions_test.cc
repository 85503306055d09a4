// The tool's conventions that commands share: how options are read, the
// configuration files and the store they choose, and the progress line.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tools/velk2/options.h"
#include "tools/velk2/progress.h"
#include "tools/velk2/support.h"

namespace velk2::cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"store", 's', "DIR", false, false, "the store"},
    {"ignore", 0, "PATTERN", true, false, "leave out"},
    {"jobs", 'j', "N", false, false, "threads"},
    {"quiet", 'q', nullptr, false, false, "quiet"},
    {"explain", 'e', nullptr, false, false, "explain"},
    {"allow-extra", 0, nullptr, false, false, "extra"},
};

Options Parsed(const Args& args, bool operands = true) {
  Options options{std::span<const OptionSpec>(kSpecs)};
  EXPECT_TRUE(options.Parse(args, operands)) << options.error();
  return options;
}

std::string Refused(const Args& args, bool operands = true) {
  Options options{std::span<const OptionSpec>(kSpecs)};
  EXPECT_FALSE(options.Parse(args, operands));
  return options.error();
}

TEST(ToolOptions, LongShortGroupedAndInlineFormsMeanTheSame) {
  for (const Args& args : std::vector<Args>{{"--store", "d", "--jobs", "4", "--quiet", "p"},
                                            {"--store=d", "--jobs=4", "--quiet=yes", "p"},
                                            {"-s", "d", "-j4", "-q", "p"},
                                            {"-qsd", "-j", "4", "p"},
                                            {"p", "-sd", "--jobs", "4", "-q"}}) {
    const Options options = Parsed(args);
    EXPECT_EQ(options.Get("store").value_or(""), "d");
    EXPECT_EQ(options.Get("jobs").value_or(""), "4");
    EXPECT_TRUE(options.Has("quiet"));
    EXPECT_FALSE(options.Has("explain"));
    EXPECT_EQ(options.positional(), Args{"p"});
  }
  // A switch turned off, repeated options in order, and "--" ending options.
  const Options options =
      Parsed({"--allow-extra=no", "--ignore", "a", "--ignore=b", "--", "-q", "--store"});
  EXPECT_FALSE(options.Has("allow-extra"));
  EXPECT_TRUE(Parsed({"--allow-extra=1"}).Has("allow-extra"));
  EXPECT_FALSE(Parsed({"--allow-extra=off"}).Has("allow-extra"));
  EXPECT_EQ(options.GetAll("ignore"), (std::vector<std::string>{"a", "b"}));
  EXPECT_FALSE(options.Has("quiet"));
  EXPECT_EQ(options.positional(), (Args{"-q", "--store"}));
  // A value that starts with "-" is still the value of the option before it.
  EXPECT_EQ(Parsed({"--store", "-odd"}).Get("store").value_or(""), "-odd");
}

TEST(ToolOptions, MistakesAreNamed) {
  EXPECT_NE(Refused({"--frobnicate"}).find("--frobnicate"), std::string::npos);
  EXPECT_NE(Refused({"-x"}).find("-x"), std::string::npos);
  EXPECT_NE(Refused({"--store"}).find("--store"), std::string::npos);  // no value
  EXPECT_NE(Refused({"-s"}).find("-s"), std::string::npos);
  EXPECT_NE(Refused({"--store", "a", "-s", "b"}).find("twice"), std::string::npos);
  EXPECT_NE(Refused({"--quiet", "-q"}).find("twice"), std::string::npos);
  EXPECT_NE(Refused({"--quiet=maybe"}).find("yes or no"), std::string::npos);
  EXPECT_FALSE(Refused({"--allow-extra="}).empty());
  EXPECT_FALSE(Refused({"operand"}, false).empty());
  EXPECT_FALSE(Refused({"-qx"}).empty());  // a grouped unknown switch
}

TEST(ToolProgress, TheLineSaysHowFarAndFitsTheTerminal) {
  ProgressState state;
  state.files = 3;
  state.total_files = 10;
  state.bytes = 3 << 20;
  state.total_bytes = 12 << 20;
  state.seconds = 2;
  EXPECT_EQ(ProgressText(state), "hashed 3/10 files, 3.0/12.0 MiB (25%), 1.5 MiB/s, 6 s left");
  // Without recorded sizes the files measure the share; without totals
  // there is no share and no time left.
  state.total_bytes = 0;
  EXPECT_EQ(ProgressText(state), "hashed 3/10 files, 3.0 MiB (30%), 1.5 MiB/s, 5 s left");
  state.total_files = 0;
  EXPECT_EQ(ProgressText(state), "hashed 3 files, 3.0 MiB, 1.5 MiB/s");
  // A file grown since signing never shows more than all of it.
  state.total_bytes = 1 << 20;
  state.total_files = 3;
  EXPECT_NE(ProgressText(state).find("(100%)"), std::string::npos);
  EXPECT_EQ(ProgressText(state).find("left"), std::string::npos);

  const std::string text(100, 'x');
  for (size_t columns : {40u, 200u, 1u, 0u}) {
    const std::string line = ProgressLine(text, columns);
    ASSERT_EQ(line.front(), '\r');
    ASSERT_EQ(line.substr(line.size() - 3), "\x1b[K");
    const size_t shown = line.size() - 4;
    EXPECT_EQ(shown, columns > 1 ? std::min<size_t>(100, columns - 1) : 1) << columns;
  }
}

class ToolConfig : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/velk2-config-XXXXXX";
    dir_ = ::mkdtemp(pattern);
    for (const char* name : {"VELK2_CONFIG", "VELK2_STORE", "XDG_CONFIG_HOME", "HOME"}) {
      if (const char* value = std::getenv(name)) saved_.emplace_back(name, value);
      ::unsetenv(name);
    }
    ::setenv("HOME", dir_.c_str(), 1);
  }
  void TearDown() override {
    for (const char* name : {"VELK2_CONFIG", "VELK2_STORE", "XDG_CONFIG_HOME", "HOME"}) {
      ::unsetenv(name);
    }
    for (const auto& [name, value] : saved_) ::setenv(name.c_str(), value.c_str(), 1);
    std::string command = "rm -rf '" + dir_ + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
  }
  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = dir_ + "/" + name;
    std::string parent = path.substr(0, path.rfind('/'));
    EXPECT_EQ(std::system(("mkdir -p '" + parent + "'").c_str()), 0);
    std::ofstream(path) << text;
    return path;
  }
  std::string dir_;
  std::vector<std::pair<std::string, std::string>> saved_;
};

TEST_F(ToolConfig, SettingsComeFromTheNamedOrTheUsersFile) {
  Config config;
  // The user's file (the system's one is not there on a test machine, or is
  // read first and overridden).
  Write(".config/velk2/velk2.conf",
        "# mine\nstore = /srv/store  \n\ntag=(pkg install)\njobs = 3\n");
  ASSERT_EQ(LoadConfig("test", &config), kExitOk);
  EXPECT_EQ(config.store.value_or(""), "/srv/store");
  EXPECT_EQ(config.tag.value_or(""), "(pkg install)");
  EXPECT_EQ(config.jobs.value_or(0), 3u);
  EXPECT_EQ(config.store_from, dir_ + "/.config/velk2/velk2.conf");
  // XDG_CONFIG_HOME moves it.
  ::setenv("XDG_CONFIG_HOME", (dir_ + "/xdg").c_str(), 1);
  Write("xdg/velk2/velk2.conf", "store = /elsewhere\n");
  ASSERT_EQ(LoadConfig("test", &config), kExitOk);
  EXPECT_EQ(config.store.value_or(""), "/elsewhere");
  EXPECT_FALSE(config.tag.has_value());
  // VELK2_CONFIG names the one file; set and empty, none is read.
  ::setenv("VELK2_CONFIG", Write("named.conf", "tag = (a)\n").c_str(), 1);
  ASSERT_EQ(LoadConfig("test", &config), kExitOk);
  EXPECT_FALSE(config.store.has_value());
  EXPECT_EQ(config.tag.value_or(""), "(a)");
  ::setenv("VELK2_CONFIG", "", 1);
  ASSERT_EQ(LoadConfig("test", &config), kExitOk);
  EXPECT_TRUE(config.files.empty());
}

TEST_F(ToolConfig, ABadOrMissingNamedFileIsAnError) {
  Config config;
  ::setenv("VELK2_CONFIG", (dir_ + "/absent.conf").c_str(), 1);
  EXPECT_EQ(LoadConfig("test", &config), kExitUsage);
  for (const char* text : {"colour = blue\n", "store\n", "store =\n", "jobs = 0\n", "jobs = 65\n",
                           "jobs = -1\n", "jobs = 4x\n"}) {
    SCOPED_TRACE(text);
    ::setenv("VELK2_CONFIG", Write("bad.conf", text).c_str(), 1);
    EXPECT_EQ(LoadConfig("test", &config), kExitUsage);
  }
  ::setenv("VELK2_CONFIG", dir_.c_str(), 1);  // a directory
  EXPECT_EQ(LoadConfig("test", &config), kExitUsage);
  ::setenv("VELK2_CONFIG", Write("big.conf", std::string(70 * 1024, '#')).c_str(), 1);
  EXPECT_EQ(LoadConfig("test", &config), kExitUsage);
}

}  // namespace
}  // namespace velk2::cli
