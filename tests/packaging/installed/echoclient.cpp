// Asks the README's Echo example, through the machine's Hub, to echo a body,
// and logs how that went to the log daemon. Exit 0 when the body came back.
#include <core/context.h>
#include <logging/logline.h>
#include <messaging/msg.h>
#include <messaging/msgcatalogue.h>

#include <QStringList>

static int gResult = 1;

static void ask()
{
    const Brevi::MsgAddress echo(Brevi::Context::machineName(), "Echo", "Examples");
    const QStringList answers{"EchoReply", Brevi::Catalogue::HubRtrUndeliverableMessagePost::Message};
    // The example may not have attached yet: its name is then undeliverable.
    for (int attempt = 0; attempt < 100 && gResult != 0; ++attempt) {
        Brevi::XmlList body;
        body.set("Text", "through the installed Hub");
        Brevi::Msg request(echo, "EchoRequest", body);
        request.setCookie(QString::number(attempt));
        if (!request.send())
            break;
        const Brevi::Msg answer = Brevi::Msg::wait(answers, 5);
        if (answer.name() == "EchoReply" && answer.getString("Text") == "through the installed Hub")
            gResult = 0;
        else
            Brevi::Context::sleep(100);
    }
    BREVI_LOG("InstallTest", gResult == 0 ? Brevi::Log::eLogInformation : Brevi::Log::eLogError)
        << "Echo %1s" << (gResult == 0 ? "answered" : "did not answer");
}

int main()
{
    if (!Brevi::Context::run(ask, Brevi::Context::TypeAttached, 0, "EchoClient", "EchoClient", "Examples"))
        return 2;
    return gResult;
}
