#include "csmi/csmi.hpp"
#include "platform/console.hpp"

namespace {

void print_sas_address(const std::uint8_t (&address)[8]) {
    console::printf("\t\tSAS Address: ");
    for (const std::uint8_t byte : address) {
        console::printf("0x%02x ", byte);
    }
    console::printf("\n");
}

} // namespace

void dump_fis(const std::uint8_t* fis) {
    console::printf("FIS:\n-----\n");
    for (int i = 0; i < static_cast<int>(kFisBytes); ++i) {
        console::printf("\t[%d]=0x%02x\n", i, fis[i]);
    }
    console::printf("-----\n");
}

void dump_sas_identify(const CSMI_SAS_IDENTIFY& identify) {
    console::printf("\t\tbDeviceType: 0x%02x\n", identify.bDeviceType);
    console::printf("\t\tbRestricted: 0x%02x\n", identify.bRestricted);
    console::printf("\t\tbInitiatorPortProtocol: 0x%02x\n", identify.bInitiatorPortProtocol);
    console::printf("\t\tbTargetPortProtocol: 0x%02x\n", identify.bTargetPortProtocol);
    console::printf("\t\tbPhyIdentifier: 0x%02x\n", identify.bPhyIdentifier);
    console::printf("\t\tbSignalClass: 0x%02x\n", identify.bSignalClass);
    print_sas_address(identify.bSASAddress);
}

void dump_stp_request(const CSMI_SAS_STP_PASSTHRU_BUFFER& request) {
    const CSMI_SAS_STP_PASSTHRU& parameters = request.Parameters;
    console::printf("bPhyIdentifier=0x%02x\n", parameters.bPhyIdentifier);
    console::printf("bPortIdentifier=0x%02x\n", parameters.bPortIdentifier);
    console::printf("bConnectionRate=0x%02x\n", parameters.bConnectionRate);
    console::printf("uFlags=0x%x\n", parameters.uFlags);
    console::printf("uDataLength=0x%x\n", parameters.uDataLength);
    dump_fis(parameters.bCommandFIS);
    print_sas_address(parameters.bDestinationSASAddress);
}
