// The kept module: a component, messages of its own, and some of the framework's types on its side.
#include "qor/glue/module.h"
#include "gauge.h"

namespace {

class gauge final : public qor::object<IGauge> {
public:
    gauge() : object("base.gauge.words", "IGauge") {}

    bool Measure(const qorString& text, qorString& out) noexcept override {
        qorStringArray words;
        if (!text.Tokenise_WS(words)) {
            qorSetLastError(qorError_not_supported);
            return false;
        }
        uint32_Array lengths;
        for (const qorString& word : words)
            lengths.Append(word.Length());
        uint32 sum = 0;
        for (const uint32 length : lengths)
            sum += length;
        qorString count;
        count.FormatUnsigned(words.GetCount(), 10);
        qorString total;
        total.FormatUnsigned(sum, 10);
        return out.Format("base-gauge", 1, count, total);
    }
};

constexpr qorCatalogMessage messages[] = {{1, "words: {1}, bytes: {2}"}};

bool start(IQORModuleHelper* helper) noexcept {
    return helper->AddCatalog("base-gauge", messages) && helper->Register<gauge>("base.gauge.words");
}

} // namespace

QOR_MODULE("base-gauge", "1.0.0", &start, "base.gauge.words")
