// binderd against a hostile process of the same uid: each attack of the
// table, scaled down, while a legitimate process keeps looking up an echo
// service and calling it. binderd must survive every attack, answer every
// legitimate call correctly, and cut or refuse the attacker. How much memory
// and time the attacks cost is measured in bench/binderd_attack_bench.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <utils/String16.h>

#include "binderd_attacks.h"
#include "binderd_fixture.h"
#include "hostbinder_test_service.h"

namespace {

using namespace tivra_test;

TEST(BinderdUnderAttack, ServesALegitimateProcessThroughEveryAttack) {
    const std::string victim = "tivra.test.victim";
    BinderdSession session;
    ASSERT_TRUE(session.started()) << session.error();
    Channel ready;
    spawnTestService(session, ready, android::String16(victim.c_str()));
    ASSERT_EQ(ready.next(), "ready");
    LegitimateClient client(session, victim);
    for (const Attack& attack : binderdAttacks()) {
        SCOPED_TRACE(attack.name);
        const AttackTarget target{session.socketPath(), session.binderdPid(), 0.02};
        EXPECT_STREQ(outcomeName(runAttack(session, attack, target, 60s)), outcomeName(attack.expected));
        ASSERT_EQ(waitpid(session.binderdPid(), nullptr, WNOHANG), 0) << "binderd died";
        const LegitimateClient::Window calls = client.report();
        EXPECT_GT(calls.calls, 0);
        EXPECT_EQ(calls.failures, 0);
    }
}

}  // namespace
