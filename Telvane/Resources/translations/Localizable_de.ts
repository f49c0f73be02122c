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
