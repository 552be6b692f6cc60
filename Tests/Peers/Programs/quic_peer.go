// A QUIC client with nothing of ours in it. Connects to the address of its first argument with a certificate of
// its own, of the kind and the protocol named by the next two, sends a number of bytes on a stream that it opens
// and prints what came of it: the fingerprint of the key it showed, that of the host's, and how many bytes the
// host sent back before its end of the stream.
package main

import (
	"context"
	"crypto"
	"crypto/ecdsa"
	"crypto/ed25519"
	"crypto/elliptic"
	"crypto/rand"
	"crypto/rsa"
	"crypto/sha256"
	"crypto/tls"
	"crypto/x509"
	"fmt"
	"io"
	"math/big"
	"os"
	"strconv"
	"time"

	"github.com/lucas-clemente/quic-go"
)

func makeKey(kind string) crypto.Signer {
	var key crypto.Signer
	var err error
	switch kind {
	case "p256":
		key, err = ecdsa.GenerateKey(elliptic.P256(), rand.Reader)
	case "p384":
		key, err = ecdsa.GenerateKey(elliptic.P384(), rand.Reader)
	case "rsa":
		key, err = rsa.GenerateKey(rand.Reader, 2048)
	case "ed25519":
		_, key, err = ed25519.GenerateKey(rand.Reader)
	}
	if err != nil {
		panic(err)
	}
	return key
}

func fingerprint(key crypto.PublicKey) string {
	if point, is := key.(*ecdsa.PublicKey); is {
		return fmt.Sprintf("%x", sha256.Sum256(elliptic.Marshal(point.Curve, point.X, point.Y)))
	}
	return "none"
}

func run() error {
	address, kind, protocol := os.Args[1], os.Args[2], os.Args[3]
	size, _ := strconv.Atoi(os.Args[4])
	config := &tls.Config{InsecureSkipVerify: true, NextProtos: []string{protocol}, MinVersion: tls.VersionTLS13}
	config.VerifyPeerCertificate = func(chain [][]byte, _ [][]*x509.Certificate) error {
		leaf, err := x509.ParseCertificate(chain[0])
		if err == nil {
			fmt.Println("host", fingerprint(leaf.PublicKey))
		}
		return err
	}
	if kind != "none" {
		key := makeKey(kind)
		template := &x509.Certificate{SerialNumber: big.NewInt(1), NotAfter: time.Now().Add(time.Hour)}
		der, err := x509.CreateCertificate(rand.Reader, template, template, key.Public(), key)
		if err != nil {
			return err
		}
		config.Certificates = []tls.Certificate{{Certificate: [][]byte{der}, PrivateKey: key}}
		fmt.Println("phone", fingerprint(key.Public()))
	}
	deadline, cancel := context.WithTimeout(context.Background(), 15*time.Second)
	defer cancel()
	connection, err := quic.DialAddrContext(deadline, address, config, &quic.Config{MaxIdleTimeout: 15 * time.Second})
	if err != nil {
		return err
	}
	stream, err := connection.OpenStreamSync(deadline)
	if err != nil {
		return err
	}
	go func() {
		stream.Write(make([]byte, size))
		stream.Close()
	}()
	received, err := io.Copy(io.Discard, stream)
	fmt.Println("received", received)
	if err != nil {
		return err
	}
	return connection.CloseWithError(0, "")
}

func main() {
	if err := run(); err != nil {
		fmt.Println("failed", err)
		os.Exit(1)
	}
	fmt.Println("done")
}
