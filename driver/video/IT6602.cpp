#include "driver/video/IT6602.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <QDebug>
#include <algorithm>
#include <atomic>
#include <cstdio>

#include "driver/DriverBase.h"
#include "driver/video/It6602Regs.h"
#include "frame/VeskSys.h"

using namespace it6602;

const char* videoStateName(int state)
{
    static const char* const names[] = {"VSTATE_Off",
                                        "VSTATE_TerminationOff",
                                        "VSTATE_TerminationOn",
                                        "VSTATE_5VOff",
                                        "VSTATE_SyncWait",
                                        "VSTATE_SWReset",
                                        "VSTATE_SyncChecking",
                                        "VSTATE_7",
                                        "VSTATE_8",
                                        "VSTATE_ModeDetecting",
                                        "VSTATE_VideoOn",
                                        "VSTATE_ColorDetectReset",
                                        "VSTATE_HDMI_OFF",
                                        "VSTATE_Reserved"};
    return state >= 0 && state <= VSTATE_Reserved ? names[state] : "VSTATE_?";
}

const char* audioStateName(int state)
{
    static const char* const names[] = {"ASTATE_AudioOff",   "ASTATE_RequestAudio",
                                        "ASTATE_ResetAudio", "ASTATE_WaitForReady",
                                        "ASTATE_AudioOn",    "ASTATE_Reserved"};
    return state >= 0 && state <= ASTATE_Reserved ? names[state] : "ASTATE_?";
}

IT6602Class::IT6602Class(it6602_dev_data* d, DriverBase* b) : dev(d), bus(b) {}

// ---------------------------------------------------------------- bus

bool IT6602Class::i2c_open()
{
    if (dev->gpio_i2c) return true;  // the bit-banged bus opens per transfer
    if (dev->i2c_fd >= 0) return true;
    const QByteArray path = QString("/dev/i2c-%1").arg(dev->i2c_num).toLatin1();
    dev->i2c_fd = vsys::open(path.constData(), O_RDWR);
    if (dev->i2c_fd < 0) {
        printf("Open %s error!\n", path.constData());
        dev->i2c_fd = -1;
        return false;
    }
    return true;
}

void IT6602Class::i2c_close()
{
    QMutexLocker guard(&busLock);
    if (dev->i2c_fd >= 0) vsys::close(dev->i2c_fd);
    dev->i2c_fd = -1;
}

// A failed transfer reads as 0: no sync, no power, no ID.
uint8_t IT6602Class::rd(int addr, uint8_t reg)
{
    QMutexLocker guard(&busLock);
    if (dev->gpio_i2c) return uint8_t(bus->sread(unsigned(addr), reg, dev->i2c_num, false));
    if (dev->i2c_fd < 0) return 0;
    if (vsys::ioctl(dev->i2c_fd, I2C_SLAVE_FORCE, (unsigned long)(addr >> 1)) < 0) return 0;
    uint8_t out = reg;
    uint8_t index = reg;
    i2c_msg msgs[2] = {{uint16_t(addr >> 1), 0, 1, &index},
                       {uint16_t(addr >> 1), I2C_M_RD, 1, &out}};
    i2c_rdwr_ioctl_data xfer{msgs, 2};
    if (vsys::ioctl(dev->i2c_fd, I2C_RDWR, static_cast<void*>(&xfer)) != 2) return 0;
    return out;
}

void IT6602Class::wr(int addr, uint8_t reg, uint8_t value)
{
    QMutexLocker guard(&busLock);
    if (dev->gpio_i2c) {
        bus->swrite(unsigned(addr), reg, value, dev->i2c_num, false);
        return;
    }
    if (dev->i2c_fd < 0) return;
    if (vsys::ioctl(dev->i2c_fd, I2C_SLAVE_FORCE, (unsigned long)(addr >> 1)) < 0) return;
    const uint8_t buf[2] = {reg, value};
    vsys::write(dev->i2c_fd, buf, 2);
}

uint8_t IT6602Class::hdmirxrd(uint8_t reg)
{
    return rd(dev->chip_addr, reg);
}

void IT6602Class::hdmirxwr(uint8_t reg, uint8_t value)
{
    wr(dev->chip_addr, reg, value);
}

void IT6602Class::hdmirxset(uint8_t reg, uint8_t mask, uint8_t value)
{
    hdmirxwr(reg, uint8_t((hdmirxrd(reg) & ~mask) | (value & mask)));
}

bool IT6602Class::CheckChipID()
{
    uint8_t id[4];
    for (int i = 0; i < 4; i++) id[i] = hdmirxrd(uint8_t(REG_ID0 + i));
    printf("IT6602 chip id %02x %02x %02x %02x\n", id[0], id[1], id[2], id[3]);
    if (id[0] != kVendorLo || id[1] != kVendorHi) return false;
    return (id[2] == kDev6602Lo && id[3] == kDev6602Hi) ||
           (id[2] == kDev6801Lo && id[3] == kDev6801Hi);
}

int IT6602Class::activePort()
{
    return hdmirxrd(REG_PORT) & 1;
}

uint8_t IT6602Class::portStatus(int port)
{
    return hdmirxrd(port ? REG_STATUS_P1 : REG_STATUS_P0);
}

bool IT6602Class::IsHDMIMode()
{
    return hdmirxrd(REG_MODE) & MODE_HDMI;
}

bool IT6602Class::CheckAVMute()
{
    return hdmirxrd(REG_AVMUTE) & 1;
}

// ---------------------------------------------------------------- bring-up

void IT6602Class::IT6602_Rst()
{
    hdmirxwr(REG_RST, RST_SW | RST_AUDIO);
    hdmirxwr(REG_RST, 0);
    // Pending interrupts are left alone: a source plugged in before power-up
    // is announced by its 5 V change, and only events move the machine.
    DisableOverWriteRS(0);
    DisableOverWriteRS(1);
}

void IT6602Class::IT6602_CECInit()
{
    wr(cecAddr, CEC_CMD, CEC_RESET);
    wr(cecAddr, CEC_CMD, 0);
}

void IT6602Class::IT6602_fsm_init()
{
    dev->m_VideoCountingTimer = 0;
    dev->m_AudioCountingTimer = 0;
    dev->m_ucSCDTOffCount = 0;
    dev->m_ucStatus = 0;
    for (int p = 0; p < 2; p++) {
        dev->m_EQActive[p] = 0;
        dev->m_EQStep[p] = 0;
        dev->m_EQTry[p] = 0;
        dev->m_EQPolled[p] = 0;
    }
    eventPending = false;
    IT6602_Rst();
    IT6602_CECInit();
    hdmirxset(REG_EDID_CTRL, 0x20, 0x20);
    vsys::msleep(1);
    for (int i = 0; i < 256 && i < edid.size(); i++) wr(edidAddr, uint8_t(i), uint8_t(edid[i]));
    hdmirxset(REG_EDID_CTRL, 0x20, 0x00);
    hdmirxset(REG_PORT, 0x01, 0x00);
    // No state is entered here: the machine stays in VSTATE_Off until the
    // first power or sync event.
}

void IT6602Class::it6602HPDCtrl(int port, bool on)
{
    if (port < 0 || port > 1) return;
    hdmirxset(REG_HPD, uint8_t(1 << port), on ? uint8_t(1 << port) : 0);
    dev->m_HPD[port] = on;
}

// ---------------------------------------------------------------- the machine

void IT6602Class::IT6602_fsm()
{
    IT6602HDMIInterruptHandler();
    IT6602VideoHandler();
    IT6602AudioHandler();
    for (int port = 0; port < 2; port++)
        if (dev->m_EQActive[port]) HDMIAdjustEQ(port);
    IT6602HDMIEventManager();
}

void IT6602Class::IT6602SwitchVideoState(int state)
{
    if (dev->m_VState == state) return;
    dev->m_VState = state;
    switch (state) {
        case VSTATE_SyncWait:
            IT6602VideoOutputEnable(false);
            dev->m_VideoCountingTimer = 0;
            dev->m_ucSCDTOffCount = 0;
            dev->m_ucStatus &= 0x7F;
            hdmirxwr(REG_OUT_CTRL, 0x82);
            break;
        case VSTATE_SWReset:
            IT6602VideoOutputEnable(false);
            IT6602_CECInit();
            break;
        case VSTATE_SyncChecking:
            dev->m_VideoCountingTimer = 101;
            hdmirxwr(REG_OUT_CTRL, 0x82);
            break;
        case VSTATE_VideoOn:
            IT6602VideoOutputConfigure();
            IT6602VideoOutputEnable(true);
            IT6602SwitchAudioState(ASTATE_RequestAudio);
            get_vid_info();
            show_vid_info();
            hdmirxwr(REG_OUT_DRV, 0x8F);
            hdmirxwr(REG_OUT_CTRL, 0x81);
            dev->m_ucSCDTOffCount = 0;
            break;
        default:
            break;
    }
}

void IT6602Class::IT6602SwitchAudioState(int state)
{
    dev->m_AState = state;
    switch (state) {
        case ASTATE_AudioOff:
            hdmirxset(REG_RST, RST_AUDIO, RST_AUDIO);
            break;
        case ASTATE_WaitForReady:
            // Two passes for the audio clock to settle.
            dev->m_AudioCountingTimer = 151;
            break;
        case ASTATE_AudioOn:
            dev->m_AudioCountingTimer = 0;
            break;
        default:
            break;
    }
}

void IT6602Class::IT6602HDMIInterruptHandler()
{
    const int active = activePort();
    uint8_t ints[2];
    for (int port = 0; port < 2; port++) {
        const uint8_t reg = port ? REG_INT_P1 : REG_INT_P0;
        ints[port] = hdmirxrd(reg);
        if (ints[port]) hdmirxwr(reg, ints[port]);
    }
    if (ints[active] & INT_AVI_CHG) eventPending = true;
    // Sync first, power last: a source pulled out takes both with it, and
    // the loss of power is what the machine must end up showing.
    if (ints[active] & INT_SCDT_CHG) hdmirx_INT_SCDT_Chg(active);
    for (int port = 0; port < 2; port++)
        if (ints[port] & INT_5V_CHG) hdmirx_INT_5V_Pwr_Chg(port);
}

void IT6602Class::hdmirx_INT_SCDT_Chg(int port)
{
    if (portStatus(port) & STATUS_SCDT) {
        IT6602SwitchVideoState(VSTATE_SyncChecking);
        return;
    }
    // A short drop is not worth tearing the picture down for.
    vsys::msleep(200);
    // The second look covers whatever changed during the wait.
    hdmirxwr(port ? REG_INT_P1 : REG_INT_P0, INT_SCDT_CHG);
    if (portStatus(port) & STATUS_SCDT) return;
    IT6602SwitchVideoState(VSTATE_SyncWait);
    IT6602SwitchAudioState(ASTATE_AudioOff);
}

void IT6602Class::hdmirx_INT_5V_Pwr_Chg(int port)
{
    const bool on = portStatus(port) & STATUS_5V;
    if (port == activePort()) {
        IT6602SwitchVideoState(on ? VSTATE_SyncWait : VSTATE_SWReset);
        it6602HPDCtrl(port, on);
        return;
    }
    it6602HPDCtrl(port, on);
    if (!on) DisableOverWriteRS(port);
}

void IT6602Class::IT6602VideoHandler()
{
    if (dev->m_VideoCountingTimer < 101) {
        dev->m_VideoCountingTimer = 0;
        if (dev->m_VState == VSTATE_SyncChecking) IT6602SwitchVideoState(VSTATE_VideoOn);
    } else {
        dev->m_VideoCountingTimer -= 100;
        if (dev->m_VState == VSTATE_SyncChecking) return;
    }
    if (dev->m_VState == VSTATE_VideoOn) {
        if ((dev->m_ucStatus & 0x80) && IsHDMIMode()) {
            IT6602VideoOutputConfigure();
            dev->m_ucStatus &= 0x7F;
        }
        if ((hdmirxrd(REG_VIDMUTE) & 0x80) && !eventPending && !CheckAVMute())
            hdmirxset(REG_VIDMUTE, 0x80, 0x00);
    }
    if (dev->m_VState == VSTATE_SyncWait) WaitingForSCDT();
}

void IT6602Class::WaitingForSCDT()
{
    const int port = activePort();
    const uint8_t status = portStatus(port);
    if (status & STATUS_SCDT) {
        IT6602SwitchVideoState(VSTATE_SyncChecking);
        return;
    }
    if (dev->m_EQActive[port]) return;
    // Power and clock without sync: the link needs help after a while.
    if ((status & (STATUS_5V | STATUS_CLK)) != (STATUS_5V | STATUS_CLK)) {
        dev->m_ucSCDTOffCount = 0;
        return;
    }
    if (++dev->m_ucSCDTOffCount > 21) {
        dev->m_ucSCDTOffCount = 0;
        hdmirx_ECCTimingOut(port);
        DisableOverWriteRS(port);
        TMDSCheck(port);
    }
}

void IT6602Class::IT6602HDMIEventManager()
{
    // A changed picture description waits for the picture to be on.
    if (eventPending && dev->m_VState == VSTATE_VideoOn) {
        dev->m_ucStatus |= 0x80;
        eventPending = false;
    }
}

void IT6602Class::IT6602VideoOutputEnable(bool on)
{
    hdmirxset(REG_OUT_EN, 0x01, on ? 0x01 : 0x00);
    dev->m_bVideoOutputOn = on;
}

void IT6602Class::SetColorSpaceConvert()
{
    uint8_t sync = 0;
    if (mode == QLatin1String("bt656"))
        sync = 0x10;
    else if (mode == QLatin1String("sep"))
        sync = 0x20;
    hdmirxwr(REG_OUT_FMT, uint8_t((colorMode & 0x03) | (swapYC ? 0x04 : 0) | sync));
}

void IT6602Class::IT6602VideoOutputConfigure()
{
    SetColorSpaceConvert();
}

void IT6602Class::IT6602VideoCountClr()
{
    dev->m_ucSCDTOffCount = 0;
}

void IT6602Class::hdmirx_ECCTimingOut(int)
{
    hdmirxset(REG_RST, RST_SW, RST_SW);
    hdmirxset(REG_RST, RST_SW, 0);
}

void IT6602Class::DisableOverWriteRS(int port)
{
    hdmirxset(port ? REG_EQ_CTRL_P1 : REG_EQ_CTRL_P0, EQ_MANUAL, 0);
}

void IT6602Class::OverWriteAmpValue2EQ(int port)
{
    const uint8_t amp = hdmirxrd(port ? REG_AMP_P1 : REG_AMP_P0);
    hdmirxset(port ? REG_EQ_CTRL_P1 : REG_EQ_CTRL_P0, EQ_MANUAL, EQ_MANUAL);
    hdmirxwr(port ? REG_EQ_VAL_P1 : REG_EQ_VAL_P0, amp);
}

void IT6602Class::TMDSCheck(int port)
{
    if (!(portStatus(port) & STATUS_CLK) || dev->m_EQActive[port]) return;
    dev->m_EQActive[port] = 1;
    dev->m_EQStep[port] = 0;
    dev->m_EQTry[port] = 0;
    dev->m_EQPolled[port] = 0;
    for (int i = 0; i < 3; i++) dev->m_EQErr[port][i] = 0;
}

void IT6602Class::TMDSGet()
{
    hdmirxrd(REG_PCLK);
}

// ---------------------------------------------------------------- equaliser

int IT6602Class::JudgeBestEQ(int a, int b, int c)
{
    if (c <= std::min(a, b)) return 2;
    return a < b ? 0 : 1;
}

void IT6602Class::HDMISetEQValue(int port, uint8_t value)
{
    hdmirxset(port ? REG_EQ_CTRL_P1 : REG_EQ_CTRL_P0, EQ_MANUAL, EQ_MANUAL);
    hdmirxwr(port ? REG_EQ_VAL_P1 : REG_EQ_VAL_P0, value);
}

void IT6602Class::HDMIAdjustEQ(int port)
{
    // One step a pass: 20 to settle, 60 to measure the three values, then
    // the only jumps, 80 to 156 and 81 or 156 to the end.
    uint8_t& step = dev->m_EQStep[port];
    if (step == 255) {
        dev->m_EQActive[port] = 0;
        return;
    }
    if (step < 20) {
        HDMICheckSCDTon(port);
        step++;
    } else if (step < 80) {
        HDMIPollingErrorCount(port);
        if (step == 30 || step == 60 || step == 70) HDMIJudgeECCvalue(port);
        step++;
    } else if (step == 80) {
        HDMIJudgeECCvalue(port);
        step = 156;
    } else if (step == 81 || step == 156) {
        step = 255;
        if (port == activePort()) IT6602VideoCountClr();
    } else {
        step++;
    }
}

void IT6602Class::HDMICheckSCDTon(int port)
{
    // Sync found while the run settles: what WaitingForSCDT counted is stale.
    // The run itself goes on at one step a pass and measures all the same.
    if (portStatus(port) & STATUS_SCDT) dev->m_ucSCDTOffCount = 0;
}

void IT6602Class::HDMIPollingErrorCount(int port)
{
    if (dev->m_EQStep[port] == 20) HDMISetEQValue(port, IT6602EQTable[dev->m_EQTry[port]]);
    const uint16_t count = hdmirxrd(port ? REG_ECC_P1 : REG_ECC_P0);
    dev->m_EQPolled[port] = std::max(dev->m_EQPolled[port], count);
}

void IT6602Class::HDMIJudgeECCvalue(int port)
{
    uint8_t& trial = dev->m_EQTry[port];
    if (trial < 3) {
        dev->m_EQErr[port][trial] = dev->m_EQPolled[port];
        dev->m_EQPolled[port] = 0;
        if (++trial < 3) HDMISetEQValue(port, IT6602EQTable[trial]);
    }
    if (trial < 3) return;
    const uint16_t* e = dev->m_EQErr[port];
    const int best = JudgeBestEQ(e[0], e[1], e[2]);
    dev->m_EQBest[port] = uint8_t(best);
    const uint8_t ctrl = port ? REG_EQ_CTRL_P1 : REG_EQ_CTRL_P0;
    if (hdmirxrd(ctrl) & EQ_AUTO_HELD) {
        hdmirxset(ctrl, EQ_MANUAL, EQ_MANUAL);
        hdmirxwr(port ? REG_EQ_VAL_P1 : REG_EQ_VAL_P0, IT6602EQTable[best]);
    } else {
        OverWriteAmpValue2EQ(port);
    }
}

// ---------------------------------------------------------------- audio

bool IT6602Class::readInputAudio(uint8_t out[3])
{
    for (int i = 0; i < 3; i++) out[i] = hdmirxrd(uint8_t(REG_AUD_IN + i));
    return out[0] & 0x80;
}

void IT6602Class::hdmirx_SetHWMuteClrMode()
{
    hdmirxset(REG_HWMUTE, 0x01, 0x01);
}

void IT6602Class::hdmirx_ResetAudio()
{
    hdmirxset(REG_RST, RST_AUDIO, RST_AUDIO);
    hdmirxset(REG_RST, RST_AUDIO, 0);
}

void IT6602Class::IT6602AudioHandler()
{
    dev->m_AudioCountingTimer =
        dev->m_AudioCountingTimer > 100 ? uint16_t(dev->m_AudioCountingTimer - 100) : 0;
    if (!IsHDMIMode()) return;  // DVI carries no audio
    uint8_t in[3];
    switch (dev->m_AState) {
        case ASTATE_RequestAudio:
            if (!readInputAudio(in)) break;
            hdmirxset(REG_AUD_LAYOUT, 0x70, (in[0] & 0x40) ? 0x00 : 0x10);
            if (!(in[0] & 0x20)) hdmirxset(REG_AUD_CH, 0x10, 0x00);
            std::copy(in, in + 3, dev->m_AudioBytes);
            dev->m_AudioCode = in[1] & 0x0F;
            hdmirx_SetHWMuteClrMode();
            hdmirx_ResetAudio();
            IT6602SwitchAudioState(ASTATE_WaitForReady);
            break;
        case ASTATE_WaitForReady:
            TMDSGet();
            if (dev->m_AudioCountingTimer == 0) IT6602SwitchAudioState(ASTATE_AudioOn);
            break;
        case ASTATE_AudioOn:
            if (dev->m_AudioCountingTimer != 0) break;
            dev->m_AudioCountingTimer = 151;
            readInputAudio(in);
            if (!std::equal(in, in + 3, dev->m_AudioBytes))
                IT6602SwitchAudioState(ASTATE_RequestAudio);
            break;
        default:
            break;
    }
}

// ---------------------------------------------------------------- measurement

void IT6602Class::get_vid_info()
{
    if (!(portStatus(activePort()) & STATUS_SCDT)) return;
    uint8_t m[0xAC - REG_VID_MODE];
    for (int i = 0; i < int(sizeof m); i++) m[i] = hdmirxrd(uint8_t(REG_VID_MODE + i));
    auto at = [&](uint8_t reg) { return int(m[reg - REG_VID_MODE]); };
    const int c = at(REG_PCLK);

    dev->hold = 1;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    dev->width = uint16_t(at(REG_HACT_L) | (at(REG_HACT_H) & 0x3F) << 8);
    dev->htotal = uint16_t(at(REG_HTOTAL_L) | (at(REG_HTOTAL_H) & 0x3F) << 8);
    dev->hsync = uint16_t(at(REG_HSYNC));
    dev->hback = uint16_t(at(REG_HBACK));
    dev->height = uint16_t(at(REG_VACT_L) | (at(REG_VHIGH) & 0xF0) << 4);
    dev->vtotal = uint16_t(at(REG_VTOTAL_L) | (at(REG_VHIGH) & 0x0F) << 8);
    dev->vsync = uint16_t(at(REG_VSYNC));
    dev->vback = uint16_t(at(REG_VBACK));
    dev->flags = uint8_t(((at(REG_VID_MODE) & 0x02) ? 1 : 0) | ((at(REG_POL) & 0x08) ? 2 : 0) |
                         ((at(REG_POL) & 0x01) ? 4 : 0));
    dev->range = ((at(REG_AVI_Q) >> 2) & 3) == 2 ? 1 : 0;
    int pclk = 0;
    if (c != 0) {
        pclk = (31620 / c) * 100;
        const int w = dev->width, h = dev->height;
        const bool snapped = (w == 3840 && h == 2160) || (w == 1920 && (h == 1080 || h == 540)) ||
                             (w == 1280 && (h == 720 || h == 360));
        if (snapped) {
            if (c >= 5 && c <= 15)
                pclk = 297000;
            else if (c >= 17 && c <= 26)
                pclk = 148500;
            else if (c >= 37 && c <= 47)
                pclk = 74250;
            else if (c >= 112 && c <= 122)
                pclk = 27000;
            else if (c >= 229 && c <= 240)
                pclk = 13500;
        }
    }
    dev->pclk = pclk;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    dev->hold = 0;

    if (c == 0 && lastPclkReg != 0)
        qDebug() << "IT6602: pixel clock register reads 0 with sync present; no frame rate";
    lastPclkReg = c;
    const bool sized = dev->width && dev->height && dev->htotal && dev->vtotal;
    if (!sized && lastSized)
        qDebug("IT6602: sync without a measured picture (%dx%d, total %dx%d)", dev->width,
               dev->height, dev->htotal, dev->vtotal);
    lastSized = sized;
}

void IT6602Class::show_vid_info()
{
    qDebug().noquote() << QString("IT6602: %1x%2%3 total %4x%5, pixel clock %6 kHz")
                              .arg(dev->width)
                              .arg(dev->height)
                              .arg((dev->flags & 1) ? "i" : "p")
                              .arg(dev->htotal)
                              .arg(dev->vtotal)
                              .arg(dev->pclk);
}

// ---------------------------------------------------------------- CEC

void IT6602Class::CECSend(uint8_t dest, uint8_t opcode, uint8_t operand)
{
    wr(cecAddr, CEC_HEADER, uint8_t(dest & 0x0F));
    wr(cecAddr, CEC_OPCODE, opcode);
    wr(cecAddr, CEC_OPERAND, operand);
    wr(cecAddr, CEC_LEN, 3);
}

void IT6602Class::CECTransmit()
{
    wr(cecAddr, CEC_CMD, CEC_FIRE);
}
