#include "RuntimeEnvironment.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

using testsupport::ScopedEnv;
using testsupport::TempDir;
namespace fs = std::filesystem;

namespace {

class RuntimeEnvironment : public ::testing::Test {
protected:
    ScopedEnv dataDirs{"XDG_DATA_DIRS", std::string("/kept/data")};
    ScopedEnv prefix{"GTK_DATA_PREFIX", std::nullopt};
    ScopedEnv schemas{"GSETTINGS_SCHEMA_DIR", std::nullopt};
    TempDir dir;

    std::string env(const char* name) { return std::getenv(name) != nullptr ? std::getenv(name) : "<unset>"; }
    fs::path executable() const { return fs::path(dir.path()) / "MeridKestalUtility"; }
};

} // namespace

TEST_F(RuntimeEnvironment, NoExecutablePathChangesNothing) {
    configureRuntimeEnvironmentFor(std::nullopt);
    EXPECT_EQ(env("GTK_DATA_PREFIX"), "<unset>");
    EXPECT_EQ(env("XDG_DATA_DIRS"), "/kept/data");
}

TEST_F(RuntimeEnvironment, BareDirectorySetsOnlyTheDataPrefix) {
    configureRuntimeEnvironmentFor(executable());
    EXPECT_EQ(env("GTK_DATA_PREFIX"), dir.path());
    EXPECT_EQ(env("XDG_DATA_DIRS"), "/kept/data");
    EXPECT_EQ(env("GSETTINGS_SCHEMA_DIR"), "<unset>");
}

TEST_F(RuntimeEnvironment, SchemasBesideTheExecutableWinOverThoseUnderShare) {
    fs::create_directories(dir.path() + "/share/glib-2.0/schemas");
    fs::create_directories(dir.path() + "/glib-2.0/schemas");
    configureRuntimeEnvironmentFor(executable());
    EXPECT_EQ(env("GSETTINGS_SCHEMA_DIR"), dir.path() + "/glib-2.0/schemas");
    EXPECT_EQ(env("XDG_DATA_DIRS").rfind(dir.path() + "/share", 0), 0u) << env("XDG_DATA_DIRS");
}

TEST_F(RuntimeEnvironment, SchemasUnderShareAlone) {
    fs::create_directories(dir.path() + "/share/glib-2.0/schemas");
    configureRuntimeEnvironmentFor(executable());
    EXPECT_EQ(env("GSETTINGS_SCHEMA_DIR"), dir.path() + "/share/glib-2.0/schemas");
}

TEST_F(RuntimeEnvironment, SetEnvVarAlwaysOverwritesAndIgnoresAnEmptyName) {
    setEnvVarAlways("GTK_DATA_PREFIX", "first");
    setEnvVarAlways("GTK_DATA_PREFIX", "second");
    EXPECT_EQ(env("GTK_DATA_PREFIX"), "second");
    setEnvVarAlways("", "ignored");
    EXPECT_EQ(env("GTK_DATA_PREFIX"), "second");
}

TEST_F(RuntimeEnvironment, TemporaryDirectoryFollowsTheEnvironment) {
    testsupport::ScopedTempDirEnv temp(dir.path());
    EXPECT_EQ(getTempDirW(), fs::path(dir.path()));
    ASSERT_TRUE(getExecutablePath().has_value());
    EXPECT_EQ(getExecutablePath()->filename(), "shell_tests");
}
