// Base of every chip driver: configuration, published information and the
// board's register access paths (I2C bus devices, the bit-banged I2C device,
// physical memory).
#pragma once

#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QVariant>

class DriverBase : public QObject {
    Q_OBJECT
public:
    explicit DriverBase(QObject* parent = nullptr);

    QMap<QString, QVariant> getInfo();
    QMap<QString, QVariant> getData();
    int getSamplerate();
    void setData(QMap<QString, QVariant> newData);

    // I2C through /dev/i2c-N. `dev` is the eight-bit address form.
    int write(unsigned int bus, unsigned int dev, unsigned int reg, unsigned int value,
              unsigned int regBytes, unsigned int valueBytes);
    int read(unsigned int bus, unsigned int dev, unsigned int reg, unsigned int regBytes,
             unsigned int valueBytes);
    int write0_8(unsigned int dev, unsigned int reg, unsigned int value);
    int write1_8(unsigned int dev, unsigned int reg, unsigned int value);
    int write2_8(unsigned int dev, unsigned int reg, unsigned int value);
    int read0_8(unsigned int dev, unsigned int reg);
    int read1_8(unsigned int dev, unsigned int reg);
    int read2_8(unsigned int dev, unsigned int reg);
    // /dev/i2c-N opened and aimed at `dev` (eight-bit form), or -1 once the
    // failure is logged. Also the way in for bus code outside the drivers.
    static int openBus(unsigned int bus, unsigned int dev);

    // Bit-banged I2C through /dev/gpio_i2c[index]; index -1 is the unnumbered bus.
    bool swrite(unsigned int dev, unsigned int reg, unsigned int value, int index, bool wide);
    unsigned int sread(unsigned int dev, unsigned int reg, int index, bool wide);

    // Physical memory through /dev/mem; mappings are kept for the process's life.
    void* memmap(unsigned long phys, unsigned long size);
    void mwrite(unsigned long phys, unsigned long value);
    unsigned long mread(unsigned long phys);

    QMap<QString, QVariant> data;
    QMap<QString, QVariant> info;
    int32_t samplerate = 0;

    static QMutex mutex;

    struct MemMapNode {
        unsigned long physStart;
        void* virtStart;
        unsigned long length;
        unsigned long refCount;
        MemMapNode* next;
    };
    static MemMapNode* pTMMAPNode;
    static int fd;

public slots:
    virtual void init();
    virtual QVariant callFunc(QString func, QVariant arg);
    virtual void onCheck();
    virtual void onSetData(QMap<QString, QVariant> newData);

public:
    // What a driver with a state machine is doing inside, for a person
    // watching an input that is not yet published (stage names, counters,
    // chosen equaliser values). Nothing in the signal path reads it.
    // Declared after the four slots above on purpose: board code built
    // against this class calls them through the table of virtual functions,
    // so their places there must not move.
    virtual QMap<QString, QVariant> diagnostics();
};
