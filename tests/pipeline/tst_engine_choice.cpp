#include "ScriptedOnDeviceModel.h"
#include "core/Paths.h"
#include "formatting/FoundationModelFormatter.h"
#include "formatting/OllamaFormatter.h"
#include "formatting/PassthroughFormatter.h"
#include "pipeline/EngineChoice.h"
#include "pipeline/Verify.h"
#include "speech/WhisperServerEngine.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

namespace {

class OnDeviceEngine final : public AsrEngine {
public:
    QString name() const override { return QStringLiteral("on-device"); }
    bool isStreaming() const override { return true; }
    double requiredSampleRate() const override { return 48000; }
    QCoro::Task<void> prepare() override { co_return; }
    QCoro::Task<void> beginUtterance(QStringList) override { co_return; }
    void append(const AudioChunk &) override {}
    QCoro::Task<QString> finishUtterance() override { co_return QString(); }
    QCoro::Task<void> cancelUtterance() override { co_return; }
};

enum class Native { none, available, declines };

} // namespace

Q_DECLARE_METATYPE(AsrKind)
Q_DECLARE_METATYPE(FormatterKind)
Q_DECLARE_METATYPE(Native)

class TestEngineChoice : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;

private slots:
    void initTestCase() {
        QVERIFY(m_home.isValid());
        qputenv("QUORVANE_HOME", m_home.path().toUtf8());
    }

    void settingsAndPlatformDecide_data() {
        QTest::addColumn<AsrKind>("asr");
        QTest::addColumn<Native>("native");
        QTest::addColumn<bool>("expectOnDevice");
        QTest::newRow("on-device asked, available") << AsrKind::appleSpeech << Native::available << true;
        QTest::newRow("on-device asked, platform has none") << AsrKind::appleSpeech << Native::none << false;
        QTest::newRow("on-device asked, factory declines") << AsrKind::appleSpeech << Native::declines << false;
        QTest::newRow("whisper asked, on-device available") << AsrKind::whisperServer << Native::available << false;
    }
    void settingsAndPlatformDecide() {
        QFETCH(AsrKind, asr);
        QFETCH(Native, native);
        QFETCH(bool, expectOnDevice);
        Config config;
        config.asr = asr;
        config.whisperEndpoint = QStringLiteral("http://localhost:9123");
        config.locale = QStringLiteral("pt-BR");
        int factoryCalls = 0;
        NativeAsrFactory factory;
        if (native != Native::none) {
            factory = [&](const QString &locale) -> std::unique_ptr<AsrEngine> {
                ++factoryCalls;
                // The engine is built for the configured language.
                if (locale != config.locale)
                    return nullptr;
                if (native == Native::declines)
                    return nullptr;
                return std::make_unique<OnDeviceEngine>();
            };
        }
        const std::unique_ptr<AsrEngine> engine = makeAsr(config, factory);
        QVERIFY(engine);
        // The platform is asked only when the settings want the on-device engine.
        QCOMPARE(factoryCalls, asr == AsrKind::appleSpeech && native != Native::none ? 1 : 0);
        if (expectOnDevice) {
            QCOMPARE(engine->name(), QStringLiteral("on-device"));
            return;
        }
        const auto *whisper = dynamic_cast<const WhisperServerEngine *>(engine.get());
        QVERIFY(whisper);
        QCOMPARE(whisper->endpoint(), QUrl(QStringLiteral("http://localhost:9123")));
        QCOMPARE(whisper->language(), QStringLiteral("pt-BR"));
    }

    void formatterFollowsSettingsAndPlatform_data() {
        QTest::addColumn<FormatterKind>("kind");
        QTest::addColumn<Native>("native");
        QTest::addColumn<QString>("chosen");
        QTest::newRow("none, on-device available") << FormatterKind::none << Native::available << "passthrough";
        QTest::newRow("on-device asked, available")
            << FormatterKind::appleFoundation << Native::available << "on-device";
        QTest::newRow("on-device asked, platform has none")
            << FormatterKind::appleFoundation << Native::none << "ollama";
        QTest::newRow("on-device asked, factory declines")
            << FormatterKind::appleFoundation << Native::declines << "ollama";
        QTest::newRow("ollama asked, on-device available") << FormatterKind::ollama << Native::available << "ollama";
    }
    void formatterFollowsSettingsAndPlatform() {
        QFETCH(FormatterKind, kind);
        QFETCH(Native, native);
        QFETCH(QString, chosen);
        Config config;
        config.formatter = kind;
        config.ollamaEndpoint = QStringLiteral("http://localhost:11500");
        config.ollamaModel = QStringLiteral("llama3.2:latest");
        NativeFormatterFactory factory;
        if (native != Native::none) {
            factory = [native]() -> std::unique_ptr<TextFormatter> {
                if (native == Native::declines)
                    return nullptr;
                return std::make_unique<FoundationModelFormatter>(std::make_shared<ScriptedOnDeviceModel>());
            };
        }
        const std::unique_ptr<TextFormatter> formatter = makeFormatter(config, factory);
        QVERIFY(formatter);
        if (chosen == QStringLiteral("passthrough")) {
            QCOMPARE(formatter->name(), QStringLiteral("None (raw transcript)"));
        } else if (chosen == QStringLiteral("on-device")) {
            QVERIFY(dynamic_cast<const FoundationModelFormatter *>(formatter.get()));
        } else {
            const auto *ollama = dynamic_cast<const OllamaFormatter *>(formatter.get());
            QVERIFY(ollama);
            QCOMPARE(ollama->endpoint(), QUrl(QStringLiteral("http://localhost:11500")));
            QCOMPARE(ollama->model(), QStringLiteral("llama3.2:latest"));
        }
    }

    // The transcribe check runs the platform's own stack, not what the user configured, where the
    // platform has one.
    void transcribeCheckPrefersThePlatformsOwnStack_data() {
        QTest::addColumn<bool>("nativeAsr");
        QTest::addColumn<bool>("nativeModel");
        QTest::newRow("both on device") << true << true;
        QTest::newRow("model only") << false << true;
        QTest::newRow("recogniser only: the settings' choice") << true << false;
        QTest::newRow("neither: the settings' choice") << false << false;
    }
    void transcribeCheckPrefersThePlatformsOwnStack() {
        QFETCH(bool, nativeAsr);
        QFETCH(bool, nativeModel);
        const QJsonObject settings{
            {"asr", "whisperServer"}, {"formatter", "none"}, {"whisperEndpoint", "http://localhost:9123"}};
        QFile file(Paths::file(QStringLiteral("config.json")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(settings).toJson());
        file.close();
        Verify::NativeEngines native;
        if (nativeAsr)
            native.asr = [](const QString &) { return std::make_unique<OnDeviceEngine>(); };
        if (nativeModel)
            native.formatter = [] {
                return std::make_unique<FoundationModelFormatter>(std::make_shared<ScriptedOnDeviceModel>());
            };
        const Verify::Engines engines = Verify::chooseEngines(QStringLiteral("pt-BR"), native);
        if (nativeAsr && nativeModel) {
            QCOMPARE(engines.asr->name(), QStringLiteral("on-device"));
        } else {
            const auto *whisper = dynamic_cast<const WhisperServerEngine *>(engines.asr.get());
            QVERIFY(whisper);
            QCOMPARE(whisper->endpoint(), QUrl(QStringLiteral("http://localhost:9123")));
            QCOMPARE(whisper->language(), QStringLiteral("pt-BR"));
        }
        QCOMPARE(dynamic_cast<const FoundationModelFormatter *>(engines.formatter.get()) != nullptr, nativeModel);
        if (!nativeModel)
            QCOMPARE(engines.formatter->name(), QStringLiteral("None (raw transcript)"));
    }
};

QTEST_GUILESS_MAIN(TestEngineChoice)
#include "tst_engine_choice.moc"
