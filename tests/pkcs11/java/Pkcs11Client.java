// A Java program as users write one: SunPKCS11 configured with the module,
// its KeyStore opened with the PIN, and TLS client authentication with the
// key of one alias. Several handshakes in one run, since a JVM is slow to
// start.
//
// java Pkcs11Client <config> <pin> <server certificate PEM> <alias>:<TLSv1.3|TLSv1.2>:<port>...
// prints one line per handshake ("alias protocol: OK <negotiated> <cipher>"
// or "alias protocol: FAILED <exception>") and exits 1 when one failed.
import java.io.FileInputStream;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.Socket;
import java.nio.charset.StandardCharsets;
import java.security.KeyStore;
import java.security.Principal;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Security;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import javax.net.ssl.KeyManagerFactory;
import javax.net.ssl.SSLContext;
import javax.net.ssl.SSLEngine;
import javax.net.ssl.SSLSocket;
import javax.net.ssl.TrustManagerFactory;
import javax.net.ssl.X509ExtendedKeyManager;
import javax.net.ssl.X509KeyManager;

public final class Pkcs11Client {
  // The key manager of the KeyStore, answering every request with one alias.
  private static final class OneAlias extends X509ExtendedKeyManager {
    private final X509KeyManager keys;
    private final String alias;

    OneAlias(X509KeyManager keys, String alias) {
      this.keys = keys;
      this.alias = alias;
    }

    @Override
    public String chooseClientAlias(String[] types, Principal[] issuers, Socket socket) {
      return alias;
    }

    @Override
    public String chooseEngineClientAlias(String[] types, Principal[] issuers, SSLEngine engine) {
      return alias;
    }

    @Override
    public String[] getClientAliases(String type, Principal[] issuers) {
      return new String[] {alias};
    }

    @Override
    public String chooseServerAlias(String type, Principal[] issuers, Socket socket) {
      return null;
    }

    @Override
    public String[] getServerAliases(String type, Principal[] issuers) {
      return null;
    }

    @Override
    public X509Certificate[] getCertificateChain(String name) {
      return keys.getCertificateChain(name);
    }

    @Override
    public PrivateKey getPrivateKey(String name) {
      return keys.getPrivateKey(name);
    }
  }

  public static void main(String[] args) throws Exception {
    Provider provider = Security.getProvider("SunPKCS11").configure(args[0]);
    Security.addProvider(provider);
    char[] pin = args[1].toCharArray();
    KeyStore store = KeyStore.getInstance("PKCS11", provider);
    store.load(null, pin);

    KeyStore trusted = KeyStore.getInstance(KeyStore.getDefaultType());
    trusted.load(null, null);
    try (InputStream in = new FileInputStream(args[2])) {
      trusted.setCertificateEntry(
          "server", CertificateFactory.getInstance("X.509").generateCertificate(in));
    }
    TrustManagerFactory trust =
        TrustManagerFactory.getInstance(TrustManagerFactory.getDefaultAlgorithm());
    trust.init(trusted);
    KeyManagerFactory keys = KeyManagerFactory.getInstance("SunX509");
    keys.init(store, pin);

    boolean failed = false;
    for (int i = 3; i < args.length; ++i) {
      String[] parts = args[i].split(":");
      String alias = parts[0];
      String protocol = parts[1];
      int port = Integer.parseInt(parts[2]);
      String label = alias + " " + protocol + ": ";
      try {
        SSLContext context = SSLContext.getInstance("TLS");
        context.init(
            new javax.net.ssl.KeyManager[] {
              new OneAlias((X509KeyManager) keys.getKeyManagers()[0], alias)
            },
            trust.getTrustManagers(),
            null);
        try (SSLSocket socket =
            (SSLSocket) context.getSocketFactory().createSocket("127.0.0.1", port)) {
          socket.setSoTimeout(20000);
          socket.setEnabledProtocols(new String[] {protocol});
          socket.startHandshake();
          OutputStream out = socket.getOutputStream();
          out.write("GET / HTTP/1.0\r\n\r\n".getBytes(StandardCharsets.US_ASCII));
          out.flush();
          String answer = new String(socket.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
          if (!answer.startsWith("HTTP/1.0 200 ok")) throw new Exception("server answered: " + answer);
          System.out.println(
              label + "OK " + socket.getSession().getProtocol() + " "
                  + socket.getSession().getCipherSuite());
        }
      } catch (Exception e) {
        failed = true;
        System.out.println(label + "FAILED " + e);
      }
    }
    System.exit(failed ? 1 : 0);
  }
}
