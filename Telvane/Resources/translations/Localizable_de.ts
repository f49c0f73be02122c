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
        <source>Please enter the username and password:</source>
        <translation>Bitte geben Sie Benutzername und Passwort ein:</translation>
    </message>
    <message>
        <source>Run diagnostics on %@:</source>
        <translation>Diagnose auf %@ ausführen:</translation>
    </message>
    <message>
        <source>Connecting over SSH to %@ on port %@: </source>
        <translation>Verbindung über SSH mit %@ auf Port %@: </translation>
    </message>
    <message>
        <source>OK
</source>
        <translation>OK
</translation>
    </message>
    <message>
        <source>Diagnostics completed.</source>
        <translation>Diagnose abgeschlossen.</translation>
    </message>
    <message>
        <source>Diagnostics terminated with error: %ld</source>
        <translation>Diagnose mit Fehler beendet: %ld</translation>
    </message>
    <message>
        <source>*failed*
</source>
        <translation>*fehlgeschlagen*
</translation>
    </message>
    <message>
        <source>*canceled*
</source>
        <translation>*abgebrochen*
</translation>
    </message>
    <message>
        <source>*invalid credentials*
</source>
        <translation>*ungültige Anmeldedaten*
</translation>
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
