#include "foundation/FileTools.h"

#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

// A folder with room for the test's files; `path_` is a file in it that does not exist yet.
class AFile : public testing::Test {
protected:
    bool Write(const CStdStr& text) {
        return CFileTools(path_).writeBytes(text.data(), static_cast<unsigned>(text.size()));
    }
    CStdStr Text() const { return CFileTools(path_).toString(); }
    unsigned Mode() const { return static_cast<unsigned>(fs::status(path_.c_str()).permissions()); }

    // How many files there are in the folder of path_.
    long FileCount() const { return std::distance(fs::directory_iterator(folder_), fs::directory_iterator()); }

    TempRoot root_;
    const std::string folder_ = [this] {
        fs::create_directory(root_.path() + "/files");
        return root_.path() + "/files";
    }();
    CStdStr path_ = folder_ + "/Player.xml";
};

using TheFolders = AFile;

std::string FailureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::logic_error& error) {
        return error.what();
    }
    return "";
}

unsigned ModeOf(const std::string& path) { return static_cast<unsigned>(fs::status(path).permissions()); }

}  // namespace

TEST_F(AFile, IsReplacedAsAWhole) {
    for (const CStdStr& text : {CStdStr("a long first text"), CStdStr("\0\xff\n", 3), CStdStr()}) {
        ASSERT_TRUE(Write(text));
        EXPECT_EQ(text, Text());
    }
    EXPECT_EQ(1, FileCount()) << "a temporary file was left";
}

TEST_F(AFile, KeepsItsModeAndIsMadeWithTheOneGiven) {
    const mode_t umaskBefore = umask(027);
    EXPECT_TRUE(CFileTools(path_).writeBytes("a", 1, 0775));
    EXPECT_EQ(0775u, Mode()) << "whatever the umask";
    ASSERT_EQ(0, chmod(path_.c_str(), 0604));
    EXPECT_TRUE(CFileTools(path_).writeBytes("b", 1, 0775));
    EXPECT_EQ(0604u, Mode());
    CFileTools::DeleteFile(path_);
    EXPECT_TRUE(Write("d"));
    EXPECT_EQ(0640u, Mode());
    umask(umaskBefore);
}

TEST_F(AFile, IsAsItWasWhenTheDiskIsFull) {
    ASSERT_TRUE(Write("old"));
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {5000, 5000};
        setrlimit(RLIMIT_FSIZE, &limit);
        const bool written = Write(CStdStr(std::string(6000, 'x')));
        _exit(written ? 0 : errno);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(EFBIG, WEXITSTATUS(status));
    EXPECT_EQ("old", Text());
    EXPECT_EQ(1, FileCount());
}

TEST_F(AFile, CannotBeWrittenWhereNoneCanBe) {
    const auto reasonFor = [](const CStdStr& path) { return CFileTools(path).writeBytes("x", 1) ? 0 : errno; };
    ASSERT_TRUE(Write("old"));
    EXPECT_EQ(ENOENT, reasonFor(folder_ + "/missing/Player.xml"));
    EXPECT_EQ(ENOTDIR, reasonFor(path_ + "/Player.xml"));
    EXPECT_EQ(EISDIR, reasonFor(folder_));
    EXPECT_EQ(ENOENT, reasonFor(""));
    EXPECT_EQ(EINVAL, reasonFor(CStdStr(path_) + std::string("\0.xml", 5)));
    EXPECT_EQ(ENAMETOOLONG, reasonFor(folder_ + "/" + std::string(256, 'n')));
    EXPECT_EQ(0, reasonFor(folder_ + "/" + std::string(255, 'n'))) << "the longest name there is";
    EXPECT_EQ("old", Text());
    EXPECT_EQ(2, FileCount());
}

TEST_F(AFile, WithoutWritePermissionIsOnlyReplacedByThoseWhoHaveItAllTheSame) {
    ASSERT_TRUE(Write("old"));
    ASSERT_EQ(0, chmod(path_.c_str(), 0444));
    const bool mayWrite = access(path_.c_str(), W_OK) == 0;  // true for root
    EXPECT_EQ(mayWrite, Write("new"));
    EXPECT_EQ(mayWrite ? "new" : "old", Text());
    EXPECT_EQ(0444u, Mode());
}

TEST_F(AFile, OfALinkReplacesTheLinkAndNotWhatItNames) {
    ASSERT_TRUE(Write("old"));
    const CStdStr link = folder_ + "/link.xml";
    fs::create_symlink(path_.c_str(), link.c_str());
    ASSERT_TRUE(CFileTools(link).writeBytes("new", 3, 0600));
    EXPECT_EQ("old", Text());
    EXPECT_EQ("new", CFileTools(link).toString());
    EXPECT_FALSE(fs::is_symlink(link.c_str()));
}

TEST_F(AFile, ReadsAsEmptyWhenThereIsNothingToRead) {
    EXPECT_EQ("", Text());
    EXPECT_EQ("", CFileTools(folder_).toString());
    ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
    EXPECT_EQ("", Text()) << "and does not wait for a writer";
}

TEST_F(AFile, IsReadInRanges) {
    unsigned char* data = nullptr;
    unsigned long length = 9;
    EXPECT_FALSE(CFileTools(path_).readToBytes(&data, &length));
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(0u, length);
    ASSERT_TRUE(Write("0123456789"));
    const auto range = [&](unsigned long offset, unsigned long count) {
        EXPECT_TRUE(CFileTools(path_).getData(&data, &length, offset, count));
        const CStdStr text(reinterpret_cast<char*>(data), length);
        std::free(data);
        return text;
    };
    EXPECT_EQ("345", range(3, 3));
    EXPECT_EQ("89", range(8, 100));
    EXPECT_EQ("", range(11, 1));
    EXPECT_EQ("0123456789", range(0, ~0ul));
}

TEST_F(TheFolders, OfTheDataAreMadeOnceAndOpenToAll) {
    EXPECT_EQ(root_.dataFolder(), CFileTools::GetYarDataFolder());
    EXPECT_EQ(0777u, ModeOf(root_.dataFolder()));
    EXPECT_EQ(root_.dataFolder() + "/Sub", CFileTools::GetYarDataSubFolder("Sub"));
    EXPECT_EQ(0777u, ModeOf(root_.dataFolder() + "/Sub"));
    ASSERT_EQ(0, chmod(root_.dataFolder().c_str(), 0750));
    EXPECT_EQ(root_.dataFolder(), CFileTools::GetYarDataFolder());
    EXPECT_EQ(0750u, ModeOf(root_.dataFolder()));
}

TEST_F(TheFolders, OfTheDataFailInTheirOwnWordsOrForABufferThatIsTooSmall) {
    fs::remove_all(root_.root() + "/Library");
    EXPECT_EQ("Failed to create /Library/Tessaly folder", FailureOf([] { CFileTools::GetYarDataFolder(); }));
    const std::string path = root_.dataFolder();
    std::string buffer(path.size() + 1, '?');
    EXPECT_FALSE(GetAppDataPath(buffer.data(), buffer.size()));
    EXPECT_STREQ("", buffer.c_str());

    fs::create_directory(root_.root() + "/Library");
    const std::string failure = FailureOf([] { CFileTools::GetYarDataSubFolder("a/b"); });
    const std::string beginning = "Failed to create Yar data subfolder: " + root_.dataFolder() + "/a/b\n\t";
    EXPECT_EQ(beginning, failure.substr(0, beginning.size()));
    EXPECT_GT(failure.size(), beginning.size());
    EXPECT_TRUE(GetAppDataPath(buffer.data(), buffer.size()));
    EXPECT_STREQ(path.c_str(), buffer.c_str());
    EXPECT_FALSE(GetAppDataPath(buffer.data(), path.size())) << "the end does not fit";
    EXPECT_STREQ("", buffer.c_str());
}

TEST_F(AFile, OrFolderThatIsDeletedOrCopiedTakesNoOtherWithIt) {
    ASSERT_TRUE(Write("text"));
    EXPECT_TRUE(CFileTools::DeleteFile(CStdStr(path_ + std::string("\0.xml", 5))));
    EXPECT_TRUE(CFileTools(path_).exists());
    EXPECT_FALSE(CFileTools::CopyFile(path_, folder_ + "/../files/Player.xml"));
    EXPECT_FALSE(CFileTools::CopyDirectory(folder_, folder_ + "/again"));
    EXPECT_TRUE(CFileTools::CopyDirectory(folder_, root_.path() + "/copy"));
    EXPECT_TRUE(CFileTools::DeleteFile(path_));
    EXPECT_TRUE(CFileTools::DeleteFile(path_)) << "it is gone";
    EXPECT_EQ("text", CFileTools(root_.path() + "/copy/Player.xml").toString());
}

TEST(ATemporaryPath, IsNobodyElses) {
    const CStdStr first = CFileTools::GenerateTempFilePath();
    const CStdStr second = CFileTools::GenerateTempFilePath();
    EXPECT_NE(first, second);
    EXPECT_EQ(0u, first.find("/tmp/file"));
    EXPECT_EQ(15u, first.size());
    CFileTools::DeleteFile(first);
    CFileTools::DeleteFile(second);
}
