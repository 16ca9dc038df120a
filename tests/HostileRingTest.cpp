// The shared ring as untrusted input: whatever a process writes into it, no
// process dies, and the runtime repairs the ring within about a second.
#include <grp.h>
#include <sys/stat.h>

#include "support/Fixtures.h"

namespace zmtest {
namespace {

// Each kind of damage in turn, while two writers log every 2 ms. After each,
// both writers' records arrive again within about 1.5 s (2 s on a loaded
// machine) and the runtime says what it repaired; at the end all end
// cleanly (the release never calls through the forged pointer in the header).
TEST(HostileRing, EveryDamageIsSurvivedAndTheLogFlowsAgainWithinASecondAndAHalf) {
    // The kinds and the runtime's repair notice, but for "repaired the shared
    // ring: " ("": none is due).
    const struct {
        const char* kind;
        std::string why;
    } damages[] = {
        {"geometry", "its header was damaged; its unread records discarded"},
        {"unpublished",
         "a reservation stayed unpublished for a second; 100 bytes of an unfinished record "
         "discarded"},
        {"switches", "its header was damaged"},
        {"level", "its header was damaged"},
        {"zero-capacity", "its header was damaged; its unread records discarded"},
        {"random-header", "its header was damaged; its unread records discarded"},
        {"random-records", ""},
        {"extra-posts", "its lock was free more than once"},
        {"lock-exit", "its lock stayed taken for a second"},
    };
    Installation install;
    Runtime runtime(install);
    const char* roles[] = {"CellEmulation", "EngineEmulation"};
    std::vector<std::unique_ptr<Child>> writers;
    for (const char* role : roles) writers.push_back(install.Start(role, {"log=0,64,2000"}));

    std::string figures;
    for (const auto& d : damages) {
        const auto attack = install.Run("Attacker", {std::string("attack=") + d.kind});
        long long at = 0;
        ASSERT_EQ(std::sscanf(attack.out.c_str(), "attacked at %lld", &at), 1) << attack.out;
        // Both writers' records written after the attack arrive, and the
        // repair notice (only the first of a kind counts: random bytes may
        // look like more than one fault).
        long long flowingUs = 0;
        size_t notices = 0;
        const bool recovered = WaitUntil(
            [&] {
                const DecodedLog log(install.DataFile());
                long long firstUs[2] = {0, 0};
                notices = 0;
                for (const Record& r : log.records) {
                    if (r.head.timeUs < at) continue;
                    for (int w = 0; w < 2; ++w)
                        if (r.program == roles[w] && r.tag == "seq" && firstUs[w] == 0)
                            firstUs[w] = r.head.timeUs;
                    if (r.function == "RingGuard") {
                        // With surplus posts a writer may be inside the lock
                        // when the repair takes it: its bytes are counted on.
                        const std::string notice = "repaired the shared ring: " + d.why;
                        EXPECT_EQ(r.content.substr(0, notice.size()), notice) << d.kind;
                        ++notices;
                    }
                }
                flowingUs = std::max(firstUs[0], firstUs[1]) - at;
                return firstUs[0] != 0 && firstUs[1] != 0 && notices == (d.why.empty() ? 0U : 1U);
            },
            4s);
        EXPECT_TRUE(recovered) << d.kind << ": " << notices << " notices";
        EXPECT_LT(flowingUs, 2000000) << d.kind;
        figures += std::string(" ") + d.kind + " " + std::to_string(flowingUs / 1000) + " ms";
    }
    for (auto& w : writers) {
        w->Send("");
        EXPECT_EQ(w->Wait().exitCode, 0);
    }
    runtime.Release();
    Figure("records of both writers arrive again after:%s", figures.c_str());
}

// shmGroup gives the ring, its semaphores and the log to one group; an
// unknown group still shuts others out, and says so.
TEST(HostileRing, ShmGroupGivesTheRingAndTheLogToOneGroup) {
    const mode_t mask = umask(0);
    umask(mask);
    // A group this process may give its files to: any, as root.
    std::string name = "daemon";
    gid_t gid = 1;
    if (geteuid() != 0) {
        const group* own = getgrgid(getegid());
        ASSERT_NE(own, nullptr);
        name = own->gr_name;
        gid = own->gr_gid;
    }
    const struct {
        std::string line;
        mode_t object, semaphores, directory, file;
        gid_t group;
        std::string err;
    } cases[] = {
        {"", 0666 & ~mask, 0644 & ~mask, 0777 & ~mask, 0666 & ~mask, getegid(), ""},
        {"shmGroup=" + name, 0660, 0660, 0750, 0640, gid, ""},
        {"shmGroup=nosuchgroup", 0660, 0660, 0750, 0640, getegid(),
         "RUNTIMELOG.cfg: shmGroup: no group named \"nosuchgroup\"; the shared ring and the log "
         "are for the runtime's own group only\n"},
    };
    for (const auto& c : cases) {
        Installation install(std::string(Installation::kConfig) + c.line + "\n");
        auto runtime = install.Start("ZMRuntime", {"start", "wait", "release"});
        ASSERT_TRUE(runtime->WaitForOutput("started\n")) << runtime->OutSoFar();
        // The archiver opens the file, then restricts it: the test waits for both.
        WaitUntil([&] {
            struct stat st {};
            return stat(install.DataFile().c_str(), &st) == 0 && (st.st_mode & 07777) == c.file &&
                   st.st_gid == c.group;
        });
        const std::pair<std::string, mode_t> made[] = {{"/dev/shm/ZMLOG", c.object},
                                                       {"/dev/shm/sem.WriteLOG", c.semaphores},
                                                       {"/dev/shm/sem.ReadLOG", c.semaphores},
                                                       {install.LogDir(), c.directory},
                                                       {install.DataFile(), c.file}};
        for (const auto& [path, mode] : made) {
            struct stat st {};
            ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
            EXPECT_EQ(st.st_mode & 07777, mode) << c.line << ": " << path;
            EXPECT_EQ(st.st_gid, c.group) << c.line << ": " << path;
        }
        runtime->Send("");
        EXPECT_EQ(runtime->Wait().err, c.err) << c.line;
    }
}

}  // namespace
}  // namespace zmtest
