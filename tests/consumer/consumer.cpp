// A program built against the installed Telvane packages, as a user's program would be.
#include <Telvane/Telvane.h>

#include <cstdio>
#include <cstring>

namespace {
class Delegate : public TelvaneDelegate
{
public:
    long failure = 0;
    void sensorDidFailWithError(Telvane &, long code) override { failure = code; }
    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &, bool *) override
    {
        return std::nullopt;
    }
};
} // namespace

int main()
{
    auto sensor = Telvane::create("consumer", "Consumer", "host.invalid");
    auto delegate = std::make_shared<Delegate>();
    sensor->setDelegate(delegate);
    sensor->runScript("echo hi", std::nullopt); // cannot resolve: fails at once with code 1
    const bool ok = sensor->port() == 22 && delegate->failure == TelvaneErrorConnection &&
                    sensor->serviceNameForSensor() == "com.quillmere.sensor.credentials (host.invalid)" &&
                    TelvaneVersionNumber == 5.0 &&
                    std::strstr(reinterpret_cast<const char *>(TelvaneVersionString), "Telvane-5");
    std::printf("consumer %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
