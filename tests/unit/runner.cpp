/// The main of every unit test program. A module keeps its state for the life of the process, so
/// each test gets a process of its own: ctest starts one for each, and a program that is to run
/// several starts itself once for each.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char self[] = "/proc/self/exe";

bool passesAlone(const std::string &name)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const std::string filter = "--gtest_filter=" + name;
        execl(self, self, filter.c_str(), "--gtest_brief=1", nullptr);
        _exit(127);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}

class OneProcessPerTest : public testing::EmptyTestEventListener {
    void OnTestIterationStart(const testing::UnitTest &program, int) override
    {
        if (program.test_to_run_count() <= 1)
            return;
        int failed = 0;
        for (int i = 0; i < program.total_test_suite_count(); i++) {
            const testing::TestSuite &suite = *program.GetTestSuite(i);
            for (int j = 0; j < suite.total_test_count(); j++) {
                const testing::TestInfo &test = *suite.GetTestInfo(j);
                const std::string name = std::string(suite.name()) + '.' + test.name();
                if (test.should_run() && !passesAlone(name)) {
                    printf("FAILED %s\n", name.c_str());
                    failed++;
                }
            }
        }
        printf("%d tests, %d failed\n", program.test_to_run_count(), failed);
        fflush(nullptr);
        _exit(failed == 0 ? 0 : 1);
    }
};

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new OneProcessPerTest);
    return RUN_ALL_TESTS();
}
