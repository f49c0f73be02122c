// Runs one script on a sensor host and prints what it writes:
//   minimal-host HOST PORT USER PASSWORD-FILE 'SCRIPT'
// The exit status is the script's, or 100 + the failure code when the run could not start.
#include <Telvane/Telvane.h>

#include <atomic>
#include <fstream>
#include <iostream>

struct Printer : TelvaneDelegate
{
    TelvaneCredentialsDictionary login;
    std::atomic<long> result{100};
    // Called on the thread that runs the script, which is the one to block reading.
    void sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle> output) override
    {
        for (std::string chunk; !(chunk = output->availableData()).empty();)
            std::cout.write(chunk.data(), static_cast<std::streamsize>(chunk.size())).flush();
    }
    void sensorScriptDidTerminate(Telvane &, long status) override { result = status; }
    void sensorDidFailWithError(Telvane &, long code) override { result = 100 + code; }
    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &, bool *) override
    {
        return login;
    }
};

int main(int argc, char **argv)
{
    if (argc != 6) {
        std::cerr << "usage: minimal-host HOST PORT USER PASSWORD-FILE 'SCRIPT'\n";
        return 2;
    }
    auto printer = std::make_shared<Printer>();
    printer->login.username = argv[3];
    std::getline(std::ifstream(argv[4]), printer->login.password);
    auto sensor = Telvane::create("minimal", "Minimal host", argv[1], std::stol(argv[2]));
    sensor->setDelegate(printer);
    sensor->runScript(argv[5], std::nullopt); // returns once the output has been read to its end
    return static_cast<int>(printer->result);
}
