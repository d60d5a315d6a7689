// The IT6602-family HDMI receiver: its video and audio state machines, run a
// pass at a time by the TC7509 thread, and the register access beneath them.
// Everything it learns goes into the device record that DriverTC7509 reads.
#pragma once

#include <QByteArray>
#include <QMutex>
#include <QString>
#include <cstdint>

#include "driver/video/it6602_dev_data.h"

class DriverBase;

enum _Video_State_Type {
    VSTATE_Off = 0,
    VSTATE_TerminationOff,
    VSTATE_TerminationOn,
    VSTATE_5VOff,
    VSTATE_SyncWait,
    VSTATE_SWReset,
    VSTATE_SyncChecking,
    VSTATE_ModeDetecting = 9,
    VSTATE_VideoOn,
    VSTATE_ColorDetectReset,
    VSTATE_HDMI_OFF,
    VSTATE_Reserved,
};

enum _Audio_State_Type {
    ASTATE_AudioOff = 0,
    ASTATE_RequestAudio,
    ASTATE_ResetAudio,
    ASTATE_WaitForReady,
    ASTATE_AudioOn,
    ASTATE_Reserved,
};

const char* videoStateName(int state);
const char* audioStateName(int state);

class IT6602Class {
public:
    // `bus` lends the bit-banged transfers; the record says which bus to use.
    IT6602Class(it6602_dev_data* dev, DriverBase* bus);

    bool i2c_open();
    void i2c_close();
    bool CheckChipID();
    void IT6602_fsm_init();
    void IT6602_fsm();
    void it6602HPDCtrl(int port, bool on);
    void get_vid_info();
    it6602_dev_data* get_it6602_dev_data() { return dev; }

    uint8_t hdmirxrd(uint8_t reg);
    void hdmirxwr(uint8_t reg, uint8_t value);
    void hdmirxset(uint8_t reg, uint8_t mask, uint8_t value);

    // Of three error counts, the index of the EQ value to keep.
    static int JudgeBestEQ(int a, int b, int c);

    // CEC: one frame to a logical address, sent by CECTransmit.
    void CECSend(uint8_t dest, uint8_t opcode, uint8_t operand);
    void CECTransmit();
    void IT6602_CECInit();

    // Set before the thread starts.
    QByteArray edid;  // 256 bytes
    int colorMode = 0;
    bool swapYC = true;
    QString mode;
    int edidAddr = 168;
    int cecAddr = 200;

private:
    uint8_t rd(int addr, uint8_t reg);
    void wr(int addr, uint8_t reg, uint8_t value);
    int activePort();
    uint8_t portStatus(int port);
    bool IsHDMIMode();
    bool CheckAVMute();

    void IT6602_Rst();
    void IT6602SwitchVideoState(int state);
    void IT6602SwitchAudioState(int state);
    void IT6602HDMIInterruptHandler();
    void IT6602VideoHandler();
    void IT6602AudioHandler();
    void IT6602HDMIEventManager();
    void IT6602VideoOutputConfigure();
    void IT6602VideoOutputEnable(bool on);
    void IT6602VideoCountClr();
    void SetColorSpaceConvert();
    void show_vid_info();
    void WaitingForSCDT();
    void hdmirx_INT_SCDT_Chg(int port);
    void hdmirx_INT_5V_Pwr_Chg(int port);
    void hdmirx_ECCTimingOut(int port);
    void hdmirx_SetHWMuteClrMode();
    void hdmirx_ResetAudio();
    void DisableOverWriteRS(int port);
    void OverWriteAmpValue2EQ(int port);
    void TMDSCheck(int port);
    void TMDSGet();
    void HDMIAdjustEQ(int port);
    void HDMICheckSCDTon(int port);
    void HDMIPollingErrorCount(int port);
    void HDMIJudgeECCvalue(int port);
    void HDMISetEQValue(int port, uint8_t value);
    bool readInputAudio(uint8_t out[3]);

    it6602_dev_data* dev;
    DriverBase* bus;
    // A CEC command comes from a caller's thread: one transfer at a time, so
    // that its page select cannot slip between the thread's own.
    QMutex busLock;
    bool eventPending = false;
    int lastPclkReg = -1;
    bool lastSized = true;
};
