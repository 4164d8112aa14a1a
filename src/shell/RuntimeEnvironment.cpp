#include "RuntimeEnvironment.h"

#include "Platform.h"

void setEnvVarAlways(const std::string& name, const std::string& value) {
    if (name.empty()) {
        return;
    }
    Platform::setEnv(name, value);
}

std::filesystem::path getTempDirW() {
    return Platform::pathFromUtf8(Platform::tempDirectory());
}

std::optional<std::filesystem::path> getExecutablePath() {
    const std::string path = Platform::executablePath();
    if (path.empty()) {
        return std::nullopt;
    }
    return Platform::pathFromUtf8(path);
}

void configureRuntimeEnvironment() {
    configureRuntimeEnvironmentFor(getExecutablePath());
}

void configureRuntimeEnvironmentFor(const std::optional<std::filesystem::path>& executable) {
    if (!executable) {
        return;
    }
    const std::filesystem::path baseDir = executable->parent_path();
    const std::filesystem::path shareDir = baseDir / "share";
    if (Platform::pathExists(shareDir)) {
        setEnvVarAlways("XDG_DATA_DIRS", Platform::dataDirsWith(Platform::pathToUtf8(shareDir)));
    }
    setEnvVarAlways("GTK_DATA_PREFIX", Platform::pathToUtf8(baseDir));
    const std::filesystem::path schemasUnderShare = shareDir / "glib-2.0" / "schemas";
    if (Platform::pathExists(schemasUnderShare)) {
        setEnvVarAlways("GSETTINGS_SCHEMA_DIR", Platform::pathToUtf8(schemasUnderShare));
    }
    const std::filesystem::path schemasBesideExecutable = baseDir / "glib-2.0" / "schemas";
    if (Platform::pathExists(schemasBesideExecutable)) {
        setEnvVarAlways("GSETTINGS_SCHEMA_DIR", Platform::pathToUtf8(schemasBesideExecutable));
    }
}
