// Runs the scripts that use the program as administrators and their programs do.
#include "testing/RepositoryFixture.h"

#include <cstdlib>
#include <sys/wait.h>

namespace {

class Scripts : public Testing::RepositoryFixture
{
protected:
    void RunScript(const std::string& name) const
    {
        Create();
        Testing::CreateRepository(directory / "second", password);
        const std::string variables =
            "KBAGENT=" KBAGENT_PROGRAM " SOURCE=" SOURCE_DIRECTORY " KBAGENT_REPOSITORY=" + repository +
            " KBAGENT_PASSWORD=" + password;
        const int status =
            std::system(("cd " + directory.Path() + " && " + variables +
                         " bash " SOURCE_DIRECTORY "/tests/agent/" + name + " >script.log 2>&1")
                            .c_str());
        const std::string log = Testing::ReadFile(directory / "script.log");
        constexpr int skipped = 77;
        if (WEXITSTATUS(status) == skipped)
            GTEST_SKIP() << log;
        EXPECT_EQ(status, 0) << log;
    }
};

TEST_F(Scripts, AdministratorGetsFacts)
{
    RunScript("acceptance.sh");
}

TEST_F(Scripts, DocumentsFitSchema)
{
    RunScript("json-documents.sh");
}

} // namespace
