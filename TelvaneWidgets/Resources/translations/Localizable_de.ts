<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE" sourcelanguage="en">
<context>
    <name>Localizable</name>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Authentication required for %@</source>
        <translation>Anmeldung erforderlich für %@</translation>
    </message>
    <message>
        <source>Please answer the server&apos;s question:</source>
        <translation>Bitte beantworten Sie die Frage des Servers:</translation>
    </message>
    <message>
        <source>Please enter the username and password:</source>
        <translation>Bitte geben Sie Benutzername und Passwort ein:</translation>
    </message>
    <message>
        <source>Run diagnostics on %@:</source>
        <translation>Diagnose auf %@ ausführen:</translation>
    </message>
    <message>
        <source>Run Again</source>
        <translation>Erneut ausführen</translation>
    </message>
    <message>
        <source>Close</source>
        <translation>Schließen</translation>
    </message>
    <message>
        <source>Copy to Clipboard</source>
        <translation>In die Zwischenablage kopieren</translation>
    </message>
    <message>
        <source>Sensor:</source>
        <translation>Sensor:</translation>
    </message>
    <message>
        <source>Host:</source>
        <translation>Host:</translation>
    </message>
    <message>
        <source>Key type:</source>
        <translation>Schlüsseltyp:</translation>
    </message>
    <message>
        <source>Fingerprint:</source>
        <translation>Fingerabdruck:</translation>
    </message>
    <message>
        <source>Known key:</source>
        <translation>Bekannter Schlüssel:</translation>
    </message>
    <message>
        <source>Don&apos;t Connect</source>
        <translation>Nicht verbinden</translation>
    </message>
    <message>
        <source>The authenticity of host %@ can&apos;t be established.</source>
        <translation>Die Echtheit des Hosts %@ kann nicht bestätigt werden.</translation>
    </message>
    <message>
        <source>Its key is not known yet. Compare the fingerprint with the one the host&apos;s administrator gives you before you connect; the key is then remembered.</source>
        <translation>Sein Schlüssel ist noch nicht bekannt. Vergleichen Sie den Fingerabdruck vor dem Verbinden mit dem, den Ihnen der Administrator des Hosts nennt; der Schlüssel wird dann gespeichert.</translation>
    </message>
    <message>
        <source>Connect and Remember Key</source>
        <translation>Verbinden und Schlüssel merken</translation>
    </message>
    <message>
        <source>WARNING: The host key of %@ has changed!</source>
        <translation>WARNUNG: Der Host-Schlüssel von %@ hat sich geändert!</translation>
    </message>
    <message>
        <source>Someone could be eavesdropping on you right now (a man-in-the-middle attack), or the host&apos;s key was replaced. Connecting anyway uses the new key for this connection only.</source>
        <translation>Jemand könnte Sie gerade abhören (ein Man-in-the-Middle-Angriff), oder der Schlüssel des Hosts wurde ersetzt. Wenn Sie trotzdem verbinden, gilt der neue Schlüssel nur für diese Verbindung.</translation>
    </message>
    <message>
        <source>Connect This Once</source>
        <translation>Nur dieses Mal verbinden</translation>
    </message>
    <message>
        <source>If you expect the change, remove the old key with:</source>
        <translation>Wenn Sie die Änderung erwartet haben, entfernen Sie den alten Schlüssel mit:</translation>
    </message>
</context>
<context>
    <name>TelvaneCredentialsAccessoryView</name>
    <message>
        <source>&amp;Username:</source>
        <translation>&amp;Benutzername:</translation>
    </message>
    <message>
        <source>&amp;Password:</source>
        <translation>&amp;Passwort:</translation>
    </message>
    <message>
        <source>&amp;Remember password</source>
        <translation>Passwort &amp;merken</translation>
    </message>
</context>
</TS>
